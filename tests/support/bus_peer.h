// SPDX-License-Identifier: Apache-2.0
//
// The peer of a connection under test: a plain blocking sd-bus, on the test's own thread.
#pragma once

#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "bus/bus_message.h"
#include "util/unique_fd.h"

namespace telvora::test {

struct SdBusUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

// Owns one reference to a D-Bus message. The functions return a negative errno on failure, as
// sd_bus_message_append(3) does.
struct SdBusMessage : std::unique_ptr<sd_bus_message, SdBusUnref> {
    using unique_ptr::unique_ptr;

    // The error of an error reply; std::nullopt for any other message.
    std::optional<BusError> error() const {
        const sd_bus_error* error = sd_bus_message_get_error(get());
        return error != nullptr ? std::optional(BusError{error->name, error->message}) : std::nullopt;
    }
    // The cookie of the call that this message answers; 0 for other messages.
    uint64_t answeredCookie() const {
        uint64_t cookie = 0;
        if (*this) sd_bus_message_get_reply_cookie(get(), &cookie);
        return cookie;
    }
    int open(char type, const char* contents) { return sd_bus_message_open_container(get(), type, contents); }
    int close() { return sd_bus_message_close_container(get()); }
    int append(char type, const void* value) { return sd_bus_message_append_basic(get(), type, value); }
    int read(char type, void* value) { return sd_bus_message_read_basic(get(), type, value); }
};

struct SocketPair {
    UniqueFd ours;
    UniqueFd theirs;

    SocketPair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            throw std::runtime_error("socketpair");
        ours.reset(ends[0]);
        theirs.reset(ends[1]);
    }
};

class BusPeer {
  public:
    explicit BusPeer(UniqueFd socket, bool asServer = false) {
        check(sd_bus_new(&bus_));
        if (asServer) check(sd_bus_set_server(bus_, true, sd_id128_t{.qwords = {1, 2}}));
        const int fd = socket.release();
        check(sd_bus_set_fd(bus_, fd, fd));
        check(sd_bus_negotiate_fds(bus_, true));
        check(sd_bus_start(bus_));
    }
    ~BusPeer() { close(); }
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    void close() { sd_bus_close_unref(std::exchange(bus_, nullptr)); }

    SdBusMessage newCall(const char* path, const char* interface, const char* method) {
        sd_bus_message* message = nullptr;
        check(sd_bus_message_new_method_call(bus_, &message, nullptr, path, interface, method));
        return SdBusMessage(message);
    }
    // The answer, a method return or an error. Empty if the connection has ended.
    SdBusMessage call(const SdBusMessage& message) {
        const uint64_t cookie = send(message);
        for (;;) {
            SdBusMessage next = receive();
            if (!next || next.answeredCookie() == cookie) return next;
        }
    }
    uint64_t send(const SdBusMessage& message) {
        uint64_t cookie = 0;
        check(sd_bus_send(bus_, message.get(), &cookie));
        return cookie;
    }
    // The next message. Empty if the connection has ended.
    SdBusMessage receive() {
        for (;;) {
            sd_bus_message* next = nullptr;
            const int result = sd_bus_process(bus_, &next);
            SdBusMessage message(next);
            if (message && sd_bus_message_is_signal(next, nullptr, "Disconnected") <= 0) return message;
            if (result < 0 || message) return {};
            if (result == 0) check(sd_bus_wait(bus_, UINT64_MAX));
        }
    }
    // One step, without waiting.
    void process() { check(sd_bus_process(bus_, nullptr)); }
    void flush() { check(sd_bus_flush(bus_)); }
    sd_bus* bus() { return bus_; }

  private:
    static void check(int result) {
        if (result < 0) throw std::runtime_error("sd-bus: " + std::to_string(result));
    }

    sd_bus* bus_ = nullptr;
};

// "" for a method return, the name of an error, "ended" if there is no answer.
inline std::string errorName(const SdBusMessage& reply) {
    if (!reply) return "ended";
    return reply.error().value_or(BusError{}).name;
}

}  // namespace telvora::test
