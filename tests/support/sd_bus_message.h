// SPDX-License-Identifier: Apache-2.0
//
// SdBusMessage: owns one reference to a D-Bus message, and reads or writes its body in order. The functions
// return a negative errno on failure, 0 at the end of a container and a positive value on success, as
// sd_bus_message_read(3) does. They are inline: every report passes through each of them several times.
//
// A message belongs to its connection's strand: reference counts inside sd-bus are not atomic.
#pragma once

#include <systemd/sd-bus.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "bus/bus_message.h"

namespace telvora::test {

class SdBusMessage {
  public:
    SdBusMessage() = default;
    // Takes over the caller's reference.
    static SdBusMessage adopt(sd_bus_message* message) { return SdBusMessage(message); }
    // Adds a reference of its own.
    static SdBusMessage share(sd_bus_message* message) { return SdBusMessage(sd_bus_message_ref(message)); }

    SdBusMessage(SdBusMessage&& other) noexcept
        : message_(std::exchange(other.message_, nullptr)), bodySize_(other.bodySize_) {}
    SdBusMessage& operator=(SdBusMessage&& other) noexcept {
        std::swap(message_, other.message_);
        std::swap(bodySize_, other.bodySize_);
        return *this;
    }
    ~SdBusMessage() { sd_bus_message_unref(message_); }

    sd_bus_message* get() const { return message_; }
    explicit operator bool() const { return message_ != nullptr; }

    // The error of an error reply; std::nullopt for any other message.
    std::optional<BusError> error() const {
        const sd_bus_error* error = sd_bus_message_get_error(message_);
        if (error == nullptr) return std::nullopt;
        return BusError{error->name != nullptr ? error->name : "error",
                        error->message != nullptr ? error->message : ""};
    }

    // --- Reading ---

    // The type of the next value. `contents` is a container's inner signature; it lives as long as the
    // message.
    int peekType(char& type, const char*& contents) {
        return sd_bus_message_peek_type(message_, &type, &contents);
    }
    int enter(char type, const char* contents) {
        return sd_bus_message_enter_container(message_, type, contents);
    }
    int exit() { return sd_bus_message_exit_container(message_); }
    bool atEnd() { return sd_bus_message_at_end(message_, false) > 0; }

    // Reads one basic value of the D-Bus type `type` into `value`, a pointer to the C type that
    // sd_bus_message_read_basic(3) names.
    int read(char type, void* value) { return sd_bus_message_read_basic(message_, type, value); }
    // Reads an array of bytes; the view lives as long as the message.
    int readBytes(std::string_view& bytes) {
        const void* start = nullptr;
        size_t size = 0;
        const int result = sd_bus_message_read_array(message_, 'y', &start, &size);
        if (result > 0) bytes = {static_cast<const char*>(start), size};
        return result;
    }

    // --- Writing ---

    int open(char type, const char* contents) {
        bodySize_ += kPerContainer;
        return sd_bus_message_open_container(message_, type, contents);
    }
    int close() { return sd_bus_message_close_container(message_); }
    // Appends one basic value other than a string.
    int append(char type, const void* value) {
        bodySize_ += sizeof(uint64_t);
        return sd_bus_message_append_basic(message_, type, value);
    }
    // Appends a string up to its first NUL: a D-Bus string holds none. -EINVAL if it is not valid UTF-8.
    int appendString(const std::string& text) {
        bodySize_ += text.size() + sizeof(uint64_t);
        return sd_bus_message_append_basic(message_, 's', text.c_str());
    }
    int appendBytes(std::string_view bytes) {
        bodySize_ += bytes.size() + kPerContainer;
        return sd_bus_message_append_array(message_, 'y', bytes.data(), bytes.size());
    }

    // Approximate number of bytes appended so far.
    size_t bodySize() const { return bodySize_; }

  private:
    static constexpr size_t kPerContainer = 8;

    explicit SdBusMessage(sd_bus_message* message) : message_(message) {}

    sd_bus_message* message_ = nullptr;
    size_t bodySize_ = 0;
};

}  // namespace telvora::test
