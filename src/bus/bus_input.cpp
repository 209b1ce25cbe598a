// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_input.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>

#include "async/descriptor_closers.h"
#include "bus/bus_buffers.h"
#include "util/error_text.h"

namespace telvora {

namespace {

constexpr size_t kReadSize = size_t{64} << 10;

// On the heap: thread-local storage of this size would come out of the stacks of all threads of an
// application that links the library.
char* threadBuffer() {
    static thread_local const std::unique_ptr<char[]> buffer(new char[kReadSize]);
    return buffer.get();
}

}  // namespace

tl::expected<BusInput::Received, std::string> BusInput::receive(int socket) {
    if (closer_ && !closer_->hasRoom())
        return tl::unexpected(std::string("too many file descriptors of the peer's user are open"));
    const size_t before = kept_.size();
    char* target = threadBuffer();
    if (before != 0) {
        kept_.resize(before + kReadSize);
        target = kept_.data() + before;
    }
    iovec bytes{target, kReadSize};
    ReceivedDescriptors space;
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = space.bytes;
    message.msg_controllen = sizeof space.bytes;
    const ssize_t received = recvmsg(socket, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    const int error = errno;
    const size_t size = received > 0 ? static_cast<size_t>(received) : 0;
    lastReadSize_ = size;
    if (before != 0) kept_.resize(before + size);
    rest_ = before != 0 ? std::string_view(kept_) : std::string_view(target, size);
    if (received < 0) {
        if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) return Received::noData;
        if (error == ECONNRESET) return Received::end;
        return tl::unexpected(errorText(error));
    }
    for (const int descriptor : descriptorsOf(message))
        descriptors_.emplace_back(descriptor, closer_);
    if ((message.msg_flags & MSG_CTRUNC) != 0 || descriptors_.size() > kMaxDescriptors)
        return tl::unexpected(std::string("too many file descriptors wait for their message"));
    return received == 0 ? Received::end : Received::data;
}

tl::expected<std::optional<std::string_view>, WireViolation> BusInput::nextMessage() {
    if (rest_.size() < kFixedHeaderSize) return std::nullopt;
    const auto size = messageSize(rest_, messageSize_);
    if (!size) return violated(size.error());
    if (rest_.size() < *size) return std::nullopt;
    const std::string_view message = rest_.substr(0, *size);
    rest_.remove_prefix(*size);
    return message;
}

bool BusInput::hasMessage() const {
    if (rest_.size() < kFixedHeaderSize) return false;
    const auto size = messageSize(rest_, messageSize_);
    return !size || rest_.size() >= *size;
}

std::vector<UniqueFd> BusInput::takeDescriptors(uint32_t count) {
    const auto end =
        descriptors_.begin() + static_cast<ptrdiff_t>(std::min<size_t>(count, descriptors_.size()));
    std::vector<UniqueFd> taken(std::make_move_iterator(descriptors_.begin()), std::make_move_iterator(end));
    descriptors_.erase(descriptors_.begin(), end);
    return taken;
}

bool BusInput::keepRest() {
    if (rest_.empty()) {
        kept_.clear();
        if (kept_.capacity() > kIdleBufferSize) kept_.shrink_to_fit();
    } else if (kept_.empty()) {
        kept_ = rest_;
    } else {
        kept_.erase(0, kept_.size() - rest_.size());
    }
    rest_ = kept_;
    const size_t size = kept_.capacity() > kIdleBufferSize ? kept_.capacity() : 0;
    if (size == admittedSize_ || !mayKeep_) return true;
    admittedSize_ = size;
    return mayKeep_(size);
}

}  // namespace telvora
