// SPDX-License-Identifier: Apache-2.0
#include "platform/log_writer.h"

#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "util/log.h"
#include "util/signal_mask.h"

namespace telvora {

LogWriter::LogWriter(Target target, Format format, Reopen reopen)
    : format_(std::move(format)), reopen_(std::move(reopen)), target_(std::move(target)) {}

void LogWriter::write(int level, std::string_view line) {
    std::string record = format_(level, line);
    const MutexLock lock(lock_);
    if (stopped_) return;
    // Once lines are dropped, further ones are too until there is room for many: one line has their number.
    const size_t most = dropped_ == 0 ? kMaxBytes : kMaxBytes / 2;
    if (bytes_ + record.size() > most) {
        ++dropped_;
    } else {
        enqueueDropped();
        enqueue({std::move(record)});
    }
    flush();
    if (records_.empty() || !threadAllowed_) return;
    if (!thread_.joinable()) {
        const SignalsBlocked blocked;
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            return;  // the next line tries again
        }
    }
    changed_.notify_one();
}

void LogWriter::allowThread() {
    const MutexLock lock(lock_);
    threadAllowed_ = true;
}

void LogWriter::stop() {
    std::thread thread;
    {
        const MutexLock lock(lock_);
        if (stopped_) return;
        stopped_ = true;
        thread = std::move(thread_);
        changed_.notify_one();
    }
    if (thread.joinable()) thread.join();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStopMilliseconds);
    for (;;) {
        {
            const MutexLock lock(lock_);
            flush();
            if (records_.empty()) return;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return;
        waitUntilWritable(static_cast<int>(left.count()));
    }
}

void LogWriter::enqueue(Record record) {
    const size_t size = record.bytes.size();
    records_.push_back(std::move(record));
    bytes_ += size;
}

void LogWriter::enqueueDropped() {
    if (dropped_ == 0) return;
    const std::string text = "LogWriter: " + std::to_string(dropped_) + " lines were dropped";
    enqueue({format_(kLogWarning, text), std::exchange(dropped_, 0)});
}

void LogWriter::flush() {
    while (!records_.empty()) {
        const Outcome outcome = writeFirst();
        if (outcome == Outcome::wouldWait) return;
        if (outcome == Outcome::failed) dropped_ += records_.front().lines;
        bytes_ -= records_.front().bytes.size();
        records_.pop_front();
        written_ = 0;
        // A target that fails takes no line about it either: the next line tries again.
        if (records_.empty() && outcome == Outcome::written) enqueueDropped();
    }
}

LogWriter::Outcome LogWriter::writeFirst() {
    bool reopened = false;
    for (;;) {
        const ssize_t count = send(std::string_view(records_.front().bytes).substr(written_));
        if (count >= 0) {
            written_ += static_cast<size_t>(count);
            if (target_.isDatagram || written_ == records_.front().bytes.size()) return Outcome::written;
        } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS) {
            return Outcome::wouldWait;
        } else if (errno != EINTR) {
            if (!reopen_ || reopened || errno == EMSGSIZE) return Outcome::failed;
            reopened = true;
            written_ = 0;
            target_ = reopen_();
        }
    }
}

ssize_t LogWriter::send(std::string_view bytes) const {
    const int fd = target_.fd.get();
    if (target_.isSocket) return ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (!target_.mayWait) return ::write(fd, bytes.data(), bytes.size());
    // A pipe that is writable takes PIPE_BUF bytes at once, pipe(7).
    pollfd entry{fd, POLLOUT, 0};
    if (poll(&entry, 1, 0) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return ::write(fd, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
}

void LogWriter::waitUntilWritable(int milliseconds) const {
    int fd = -1;
    {
        const MutexLock lock(lock_);
        fd = target_.fd.get();
    }
    pollfd entry{fd, POLLOUT, 0};
    poll(&entry, 1, milliseconds);
}

// The waits have an end, so that stop() and a reopened target count.
void LogWriter::run() {
    constexpr int kMilliseconds = 100;
    for (;;) {
        {
            const MutexLock lock(lock_);
            while (!stopped_ && records_.empty())
                changed_.wait(lock_);
            if (stopped_) return;
        }
        waitUntilWritable(kMilliseconds);
        const MutexLock lock(lock_);
        flush();
    }
}

}  // namespace telvora
