// SPDX-License-Identifier: Apache-2.0
#include "tests/support/line_collector.h"

#include <unistd.h>

#include <cerrno>

namespace telvora::test {

LineCollector::LineCollector(UniqueFd pipe) : pipe_(std::move(pipe)), thread_([this] { read(); }) {}

LineCollector::~LineCollector() {
    thread_.join();
}

void LineCollector::read() {
    std::string pending;
    char buffer[16384];
    while (true) {
        const ssize_t got = ::read(pipe_.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got > 0) pending.append(buffer, static_cast<size_t>(got));

        MutexLock lock(mutex_);
        size_t begin = 0;
        for (size_t end; (end = pending.find('\n', begin)) != std::string::npos; begin = end + 1) {
            lines_.push_back(pending.substr(begin, end - begin));
        }
        pending.erase(0, begin);
        if (got <= 0) {
            if (!pending.empty()) lines_.push_back(pending);
            ended_ = true;
        }
        changed_.notify_all();
        if (ended_) return;
    }
}

std::vector<std::string> LineCollector::lines() const {
    MutexLock lock(mutex_);
    return lines_;
}

std::vector<std::string> LineCollector::linesToTheEnd(std::chrono::milliseconds timeout) const {
    waitFor([](std::string_view) { return false; }, timeout);
    return lines();
}

size_t LineCollector::lineCount() const {
    MutexLock lock(mutex_);
    return lines_.size();
}

std::optional<std::string> LineCollector::waitFor(const Predicate& wanted, std::chrono::milliseconds timeout,
                                                  size_t from) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool timedOut = false;
    MutexLock lock(mutex_);
    while (true) {
        for (; from < lines_.size(); ++from) {
            if (wanted(lines_[from])) return lines_[from];
        }
        if (ended_ || timedOut) return std::nullopt;
        timedOut = changed_.wait_until(mutex_, deadline) == std::cv_status::timeout;
    }
}

}  // namespace telvora::test
