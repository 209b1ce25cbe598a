// SPDX-License-Identifier: Apache-2.0
//
// LinkWatch: whether the device's link is metered, as NetworkManager knows, and whether the device runs on
// battery, as UPower knows. It asks both over the system bus, and again after each signal of a change. The
// value always comes with the answer to an own call, which the bus passes on from the owner of the name
// alone; any process can send a signal.
//
// A value that can't be learned counts as false: there is no bus, no service or no such property, or no
// answer comes in time. The bus is then connected to again, after pauses that double.
#pragma once

#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "async/work_pool.h"
#include "bus/bus_connection.h"
#include "wire/wire_reader.h"

namespace telvora {

// Aligned for std::atomic: clang would call a library for it.
struct alignas(2) LinkState {
    bool metered = false;  // also if NetworkManager only guesses so
    bool battery = false;

    bool operator==(const LinkState&) const = default;
};

// For people: "the link is metered", "the device runs on battery", or both.
std::string describe(const LinkState& state);

class LinkWatch : public std::enable_shared_from_this<LinkWatch> {
  public:
    struct Options {
        LinkState watched;  // the values to ask for; the others stay false
        std::string busPath = "/run/dbus/system_bus_socket";
        std::chrono::milliseconds answerTime{5'000};
        std::chrono::milliseconds firstPause{1'000};
        std::chrono::milliseconds longestPause{300'000};
    };
    // Called on the strand with the first known state, after `answerTime` at the latest, and with each
    // change.
    using Listener = std::function<void(const LinkState&)>;

    // Begins to watch. The work on the strand keeps the object until the strand's pool stops.
    static std::shared_ptr<LinkWatch> start(Strand strand, Options options, Listener listener);

    // The last state that was passed to the listener. Callable from any thread.
    LinkState state() const { return state_.load(); }
    const LinkState& watched() const { return options_.watched; }

  private:
    class Answer;
    // A value to ask for. The service's interface has the service's name.
    struct Source {
        const char* service;
        const char* path;
        const char* property;
        bool (*read)(WireReader& value);
        bool LinkState::*target;
        asio::steady_timer timer;  // the end of the answer time
        bool asked = false;
        bool changed = false;            // since it was asked for
        std::optional<bool> value = {};  // absent: not known yet
    };

    LinkWatch(Strand strand, Options options, Listener listener);
    void connect();
    void subscribe(const Source& source);
    void ask(Source& source);
    void call(const MessageView& to, std::initializer_list<std::string_view> arguments, Source* source);
    void answered(BusMessage& reply, Source* source);
    void expired(Source& source);
    void onSignal(BusMessage& signal);
    void lost(const std::string& reason);
    void report();

    const Strand strand_;
    const Options options_;
    const Listener listener_;
    std::atomic<LinkState> state_{LinkState{}};
    // The members below belong to the strand.
    std::vector<Source> sources_;
    BusConnection* bus_ = nullptr;  // owned by its own work
    asio::steady_timer retry_;
    std::chrono::milliseconds pause_;
    bool reported_ = false;
    bool lossLogged_ = false;
};

}  // namespace telvora
