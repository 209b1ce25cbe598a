// SPDX-License-Identifier: Apache-2.0
#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace telvora::test {
namespace {

constexpr const char* kInherited[] = {"PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS",
                                      "UBSAN_OPTIONS"};

std::pair<UniqueFd, UniqueFd> makePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe can be made");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::vector<std::string> environmentOf(const ChildProcessOptions& options, int errorPipe) {
    std::vector<std::string> result;
    for (const char* name : kInherited) {
        if (const char* value = getenv(name)) result.push_back(std::string(name) + "=" + value);
    }
    for (const auto& [name, value] : options.environment)
        result.push_back(name + "=" + value);
    if (options.journalStream) {
        struct stat status {};
        fstat(errorPipe, &status);
        result.push_back("JOURNAL_STREAM=" + std::to_string(status.st_dev) + ":" +
                         std::to_string(status.st_ino));
    }
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& text : strings)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

ChildProcess::ChildProcess(const ChildProcessOptions& options) {
    auto [inputRead, inputWrite] = makePipe();
    auto [outputRead, outputWrite] = makePipe();
    auto [errorRead, errorWrite] = makePipe();

    // All allocations precede the fork: another thread may hold the allocator's lock.
    std::vector<std::string> arguments = options.arguments;
    std::vector<std::string> environment = environmentOf(options, errorWrite.get());
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(environment);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("no process can be made");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        dup2(inputRead.get(), STDIN_FILENO);
        dup2(outputWrite.get(), STDOUT_FILENO);
        dup2(errorWrite.get(), STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    pidFd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    input_ = std::move(inputWrite);
    outputWrite.reset();
    errorWrite.reset();
    output_ = std::make_unique<LineCollector>(std::move(outputRead));
    errors_ = std::make_unique<LineCollector>(std::move(errorRead));
}

ChildProcess::~ChildProcess() {
    if (!status_) {
        signal(SIGKILL);
        waitForExit(std::chrono::hours(1));
    }
}

void ChildProcess::signal(int number) const {
    if (!status_) kill(pid_, number);
}

bool ChildProcess::writeInput(std::string_view text) const {
    while (!text.empty()) {
        const ssize_t written = write(input_.get(), text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
    if (status_) return status_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    pollfd ended{pidFd_.get(), POLLIN, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        ready = poll(&ended, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return std::nullopt;

    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return std::nullopt;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
}

Finished runToEnd(const ChildProcessOptions& options, std::string_view input) {
    ChildProcess process(options);
    process.writeInput(input);
    process.closeInput();
    const int status = process.waitForExit(kPatience).value_or(-1);
    return {status, process.output().linesToTheEnd(kPatience), process.errors().linesToTheEnd(kPatience)};
}

}  // namespace telvora::test
