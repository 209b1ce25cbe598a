// SPDX-License-Identifier: Apache-2.0
//
// Runs part of a test in a child process, for changes of the process that can't be undone.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

namespace telvora::test {

// Collects the failures in the child; the parent receives them as text.
class ChildReport {
  public:
    explicit ChildReport(int fd) : fd_(fd) {}

    void wrong(const std::string& what) const {
        const std::string line = what + "\n";
        static_cast<void>(!write(fd_, line.data(), line.size()));
    }
    void expect(bool holds, const std::string& what) const {
        if (!holds) wrong(what + " (errno " + std::strerror(errno) + ")");
    }
    // For a call that returns -1 and sets errno.
    void expectErrno(long result, int expected, const std::string& what) const {
        const int error = result == -1 ? errno : 0;
        if (error != expected) {
            wrong(what + ": " + std::strerror(error) + " instead of " + std::strerror(expected));
        }
    }

  private:
    int fd_;
};

// Forks, runs `body` in the child and returns its failures. Empty if there were none. The child ends with
// _exit(2).
inline std::string inForkedChild(const std::function<void(const ChildReport&)>& body) {
    std::FILE* const report = std::tmpfile();
    if (report == nullptr) return "no file";
    const pid_t child = fork();
    if (child == 0) {
        body(ChildReport(fileno(report)));
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    std::string text(4096, '\0');
    std::rewind(report);
    text.resize(std::fread(text.data(), 1, text.size(), report));
    std::fclose(report);
    return status == 0 ? text : text + "ended with " + std::to_string(status) + "\n";
}

}  // namespace telvora::test
