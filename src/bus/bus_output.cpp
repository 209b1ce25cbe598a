// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_output.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bus/bus_buffers.h"

namespace telvora {

void BusOutput::attach(size_t position, std::vector<UniqueFd> descriptors) {
    for (UniqueFd& descriptor : descriptors)
        descriptors_.push_back({position, std::move(descriptor)});
}

tl::expected<bool, int> BusOutput::flush(int socket) {
    while (!empty()) {
        // The descriptors of a message go with its first byte: a write ends where the next such message
        // begins.
        DescriptorSpace space{};
        msghdr message{};
        size_t count = 0;
        while (count < std::min(kMaxDescriptors, descriptors_.size()) &&
               descriptors_[count].position == sent_)
            ++count;
        if (count != 0) {
            message.msg_control = space.bytes;
            message.msg_controllen = CMSG_SPACE(sizeof(int) * count);
            cmsghdr* const part = CMSG_FIRSTHDR(&message);
            part->cmsg_level = SOL_SOCKET;
            part->cmsg_type = SCM_RIGHTS;
            part->cmsg_len = CMSG_LEN(sizeof(int) * count);
            for (size_t i = 0; i < count; ++i) {
                const int descriptor = descriptors_[i].descriptor.get();
                std::memcpy(CMSG_DATA(part) + i * sizeof descriptor, &descriptor, sizeof descriptor);
            }
        }
        const size_t end = count < descriptors_.size() ? descriptors_[count].position : buffer_.size();
        iovec bytes{buffer_.data() + sent_, end - sent_};
        message.msg_iov = &bytes;
        message.msg_iovlen = 1;
        const ssize_t sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        if (sent < 0) return tl::unexpected(errno);
        sent_ += static_cast<size_t>(sent);
        descriptors_.erase(descriptors_.begin(), descriptors_.begin() + static_cast<ptrdiff_t>(count));
    }
    if (!empty()) {
        // Moved to the front only when that frees most of the buffer.
        if (descriptors_.empty() && sent_ > buffer_.size() / 2) {
            buffer_.erase(0, sent_);
            sent_ = 0;
        }
        return false;
    }
    clear();
    return true;
}

void BusOutput::clear() {
    sent_ = 0;
    descriptors_.clear();
    buffer_.clear();
    buffer_.shrink_to_fit();
}

}  // namespace telvora
