// SPDX-License-Identifier: Apache-2.0
//
// BusMessage: a message that was received, while its handler runs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "util/unique_fd.h"
#include "wire/wire_message.h"

namespace telvora {

// An error reply: a D-Bus error name and a text for people.
struct BusError {
    std::string name;
    std::string message;
};

inline BusError noMemoryForCall() {
    return {"org.freedesktop.DBus.Error.NoMemory", "There is no memory for this call."};
}

// Whether the calls that follow an unanswered call are carried out meanwhile.
enum class BusCallOrder {
    kConcurrent,
    kExclusive,  // they wait, and so does the connection's end
};

inline constexpr char kBusErrorAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr char kBusErrorFailed[] = "org.freedesktop.DBus.Error.Failed";
inline constexpr char kBusErrorInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kBusErrorNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";

class BusMessage {
  public:
    // `view` and its bytes outlive the message.
    BusMessage(const MessageView& view, std::vector<UniqueFd> descriptors, const char* answerSignature = "")
        : view_(view),
          descriptors_(std::move(descriptors)),
          answerSignature_(answerSignature),
          reader_(view.reader()) {}
    BusMessage(const BusMessage&) = delete;
    BusMessage& operator=(const BusMessage&) = delete;

    const MessageView& view() const { return view_; }
    // The error that an error reply carries. Reads the message's text.
    std::optional<BusError> error() {
        if (view_.type != MessageType::error) return std::nullopt;
        std::string_view text;
        if (reader_.type() == 's') reader_.read(text);
        return BusError{std::string(view_.errorName), std::string(text)};
    }

    // The body, at the first value that was not read.
    WireReader& reader() { return reader_; }
    // Takes a descriptor, by the index that the reader gave for it. Empty if it was taken before.
    UniqueFd takeDescriptor(uint32_t index) { return std::move(descriptors_[index]); }
    // Whether a PendingCall answers the call.
    bool isDeferred() const { return deferred_; }
    void setDeferred() { deferred_ = true; }
    // The types of the answer to a call.
    const char* answerSignature() const { return answerSignature_; }

  private:
    const MessageView view_;
    std::vector<UniqueFd> descriptors_;
    const char* answerSignature_;
    WireReader reader_;
    bool deferred_ = false;
};

}  // namespace telvora
