// SPDX-License-Identifier: Apache-2.0
//
// BusInput: the bytes and file descriptors that a connection receives, cut into messages.
//
// One receive() reads into a buffer that all connections of a thread share, and messages are views of it: a
// connection that waits for input holds no buffer of its own. It keeps a copy only of a message that has not
// arrived as a whole, and of whole messages that a bounded turn leaves. A message is copied once at most.
//
// Used on the connection's strand.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "util/unique_fd.h"
#include "wire/wire_message.h"

namespace telvora {

class BusInput {
  public:
    // `messageSize`: of the largest message, in bytes. The input holds no more than that and one read.
    // `closer`: of the descriptors that come; null: close(2).
    explicit BusInput(size_t messageSize, std::shared_ptr<FdCloser> closer = nullptr)
        : messageSize_(messageSize), closer_(std::move(closer)) {}

    enum class Received { data, noData, end };
    // Reads once. Fails with the reason when the socket does, when more descriptors come than may wait, and
    // when the peer's user has too many of them here.
    // Between receive() and keepRest() the strand must not leave the thread.
    tl::expected<Received, std::string> receive(int socket);

    // Of the last receive(), in bytes.
    size_t lastReadSize() const { return lastReadSize_; }
    // The bytes that were received and not taken.
    std::string_view bytes() const { return rest_; }
    void take(size_t size) { rest_.remove_prefix(size); }

    // Takes the next message, if it is there as a whole. Its bytes are valid until keepRest().
    tl::expected<std::optional<std::string_view>, WireViolation> nextMessage();
    // Whether nextMessage() would return one, or a violation.
    bool hasMessage() const;
    // The descriptors that came first, as many as the message that was taken has.
    std::vector<UniqueFd> takeDescriptors(uint32_t count);
    size_t waitingDescriptors() const { return descriptors_.size(); }

    // Ends a turn: keeps what was not taken. False if the function of onKept() refuses.
    bool keepRest();
    // Asks before a buffer of so many bytes is kept from turn to turn; 0: it was given back.
    void onKept(std::function<bool(size_t bytes)> mayKeep) { mayKeep_ = std::move(mayKeep); }

  private:
    const size_t messageSize_;
    const std::shared_ptr<FdCloser> closer_;
    std::string kept_;  // between turns
    size_t lastReadSize_ = 0;
    size_t admittedSize_ = 0;
    std::function<bool(size_t)> mayKeep_;
    std::string_view rest_;  // of kept_, or of the thread's buffer
    std::vector<UniqueFd> descriptors_;
};

}  // namespace telvora
