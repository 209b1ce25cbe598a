// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <memory>
#include <utility>

namespace telvora {

// Closes descriptors for UniqueFd, where close(2) may block.
class FdCloser {
  public:
    virtual ~FdCloser() = default;

    // Counts a descriptor that will come to close() or releaseOne().
    virtual void addOne() = 0;
    // The descriptor will not come to close().
    virtual void releaseOne() = 0;
    // Takes the descriptor over. Does not block.
    virtual void close(int fd) = 0;

    // For a connection's closer: the closer of the descriptors that the peer sends, and whether it takes as
    // many as one message can bring.
    virtual std::shared_ptr<FdCloser> ofReceived() = 0;
    virtual bool hasRoom() const = 0;
};

// Owns a file descriptor and closes it on destruction. -1: no descriptor.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    // `closer` closes the descriptor; null: close(2).
    UniqueFd(int fd, std::shared_ptr<FdCloser> closer) : fd_(fd), closer_(std::move(closer)) {
        if (closer_) closer_->addOne();
    }
    UniqueFd(UniqueFd&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), closer_(std::move(other.closer_)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(std::exchange(other.fd_, -1));
        closer_ = std::move(other.closer_);
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    const std::shared_ptr<FdCloser>& closer() const { return closer_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Passes the descriptor to the caller, who closes it.
    int release() {
        if (const auto closer = std::move(closer_)) closer->releaseOne();
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) {
        const auto closer = std::move(closer_);
        const int former = std::exchange(fd_, fd);
        if (former < 0) return;
        closer ? closer->close(former) : static_cast<void>(::close(former));
    }

  private:
    int fd_ = -1;
    std::shared_ptr<FdCloser> closer_;
};

}  // namespace telvora
