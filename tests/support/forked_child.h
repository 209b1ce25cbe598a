// SPDX-License-Identifier: Apache-2.0
//
// Runs part of a test in a child process, for changes of the process that can't be undone.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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
    int ends[2];
    if (pipe(ends) != 0) return "no pipe";
    const pid_t child = fork();
    if (child < 0) return "no child";
    if (child == 0) {
        close(ends[0]);
        body(ChildReport(ends[1]));
        _exit(0);
    }
    close(ends[1]);
    std::string report;
    std::array<char, 4096> part;
    for (ssize_t length; (length = read(ends[0], part.data(), part.size())) > 0;) {
        report.append(part.data(), static_cast<size_t>(length));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        report += "ended with " + std::to_string(status) + "\n";
    return report;
}

}  // namespace telvora::test
