// SPDX-License-Identifier: Apache-2.0
#include "tests/support/child_process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace telvora::test {

namespace {

std::pair<UniqueFd, UniqueFd> makePipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe can be made");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::vector<std::string> environmentOf(const ChildProcessOptions& options, int errorPipe) {
    std::map<std::string, std::string> variables = options.environment;
    for (const char* name : {"PATH", "ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        if (const char* value = getenv(name)) variables.emplace(name, value);
    }
    if (options.journalStream) {
        struct stat status {};
        fstat(errorPipe, &status);
        variables["JOURNAL_STREAM"] = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : variables)
        result.push_back(name + "=" + value);
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

LineCollector::LineCollector(UniqueFd pipe)
    : thread_([this, pipe = std::move(pipe)]() mutable { read(std::move(pipe)); }) {}

// Takes many lines at a time: the program waits while the pipe is full.
void LineCollector::read(UniqueFd pipe) {
    std::string pending;
    char buffer[16384];
    for (ssize_t got = 1; got > 0;) {
        got = ::read(pipe.get(), buffer, sizeof buffer);
        if (got > 0) pending.append(buffer, static_cast<size_t>(got));
        if (got <= 0 && !pending.empty()) pending += '\n';
        const MutexLock lock(mutex_);
        size_t begin = 0;
        for (size_t end; (end = pending.find('\n', begin)) != std::string::npos; begin = end + 1)
            lines_.push_back(pending.substr(begin, end - begin));
        pending.erase(0, begin);
        ended_ = got <= 0;
        changed_.notify_all();
    }
}

std::vector<std::string> LineCollector::lines() const {
    const MutexLock lock(mutex_);
    return lines_;
}

std::vector<std::string> LineCollector::linesToTheEnd() const {
    waitFor([](std::string_view) { return false; });
    return lines();
}

size_t LineCollector::lineCount() const {
    const MutexLock lock(mutex_);
    return lines_.size();
}

bool LineCollector::waitFor(const std::function<bool(std::string_view)>& wanted, size_t from) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    bool timedOut = false;
    const MutexLock lock(mutex_);
    for (;;) {
        for (; from < lines_.size(); ++from) {
            if (wanted(lines_[from])) return true;
        }
        if (ended_ || timedOut) return false;
        timedOut = changed_.wait_until(mutex_, deadline) == std::cv_status::timeout;
    }
}

ChildProcess::ChildProcess(const ChildProcessOptions& options, std::string_view input) {
    auto [inputRead, inputWrite] = makePipe();
    auto [outputRead, outputWrite] = makePipe();
    auto [errorRead, errorWrite] = makePipe();
    if (write(inputWrite.get(), input.data(), input.size()) < 0) throw std::runtime_error("no input");
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
        // Sockets of other libraries in this process have no close-on-exec flag.
        close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    pidFd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    input_ = std::move(inputWrite);
    output_ = std::make_unique<LineCollector>(std::move(outputRead));
    errors_ = std::make_unique<LineCollector>(std::move(errorRead));
}

ChildProcess::~ChildProcess() {
    signal(SIGKILL);
    waitForExit(std::chrono::hours(1));
}

void ChildProcess::signal(int number) const {
    if (!status_) kill(pid_, number);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
    if (status_) return status_;
    pollfd ended{pidFd_.get(), POLLIN, 0};
    int status = 0;
    if (poll(&ended, 1, static_cast<int>(timeout.count())) <= 0 || waitpid(pid_, &status, 0) != pid_)
        return std::nullopt;
    return status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace telvora::test
