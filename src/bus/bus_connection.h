// SPDX-License-Identifier: Apache-2.0
//
// BusConnection: one end of a peer-to-peer D-Bus connection (D-Bus Specification; sd-bus(3)) on a connected
// Unix stream socket, driven by its strand.
//
// How it runs: sd-bus never blocks and never waits here. The strand waits for what sd_bus_get_events(3) and
// sd_bus_get_timeout(3) ask for, then processes all input that is there, a bounded number of messages per
// turn so that one busy peer can't keep a runner to itself. A quiet connection has no timer and no wakeup.
//
// What a peer can cost: BusLimits says it. A client whose answers pile up, or that has too many calls
// unanswered, is not read from until that has changed; its own socket then fills up and it waits. A peer that
// does not authenticate in time, or that sends a message that is too large, is disconnected.
//
// Everything here is called on the connection's strand, except make(), and except that the functions
// before start() may be called by the thread that will call start(). Handlers run on the strand. Connections
// and pending calls must be given up before the pool is.
#pragma once

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <unordered_map>
#include <vector>

#include "async/work_pool.h"
#include "bus/bus_interface.h"
#include "bus/bus_message.h"
#include "util/unique_fd.h"

namespace telvora {

// An error reply: a D-Bus error name and a text for people.
struct BusError {
    std::string name;
    std::string message;
};

inline constexpr char kBusErrorAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
inline constexpr char kBusErrorFailed[] = "org.freedesktop.DBus.Error.Failed";
inline constexpr char kBusErrorInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
inline constexpr char kBusErrorNotSupported[] = "org.freedesktop.DBus.Error.NotSupported";

enum class BusRole { kServer, kClient };

struct BusLimits {
    // From start() until the peer has authenticated (EXTERNAL: it is who the kernel says it is).
    std::chrono::milliseconds authenticationTimeout{10'000};
    // Largest incoming message, in bytes. sd-bus reads on as long as there is more to read, and the size is
    // checked in between: a peer that writes as fast as it is read from can get more in, though never more
    // than the 128 MiB at which sd-bus itself ends the connection.
    size_t messageSize = size_t{16} << 20;
    // Outgoing bytes and messages that wait for the peer to read. Beyond either, the output is congested: a
    // server's input rests, and one-way calls should.
    size_t queuedBytes = size_t{1} << 20;
    size_t queuedMessages = 1024;
    // Calls of the peer that wait for their answer. Beyond it, a server's input rests.
    size_t pendingCalls = 4096;
    // How long a peer that this server has taken leave of may take to read what it was sent.
    std::chrono::milliseconds parting{2'000};
};

class BusConnection;

// A received call that is to be answered later. May be kept, answered and destroyed on any thread, as long as
// the strand's pool exists; destroyed unanswered, it leaves the caller without an answer.
class PendingCall {
  public:
    // Appends the answer's body; a negative errno makes it an error reply instead. Runs on the strand.
    using Fill = std::function<int(BusMessage& reply)>;

    PendingCall(std::shared_ptr<BusConnection> connection, uint64_t id);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    // Answers; the second and all later calls do nothing. On the strand the answer goes out before this
    // returns.
    void reply(Fill fill);

  private:
    std::shared_ptr<BusConnection> connection_;
    uint64_t id_;
    std::atomic<bool> answered_ = false;
};

class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    // Handles one call; `call` is at its first argument and has the method's signature. An error is answered
    // right away; otherwise the handler has called replyNow() or taken a PendingCall, or there is no answer.
    using MethodHandler = std::function<std::optional<BusError>(BusMessage& call)>;
    // Takes the answer to an own call: a method return, or an error (BusMessage::error()). Destroyed uncalled
    // when the connection ends first.
    using ReplyHandler = std::function<void(BusMessage& reply)>;
    // Runs once, when the connection ends, with the reason. Where this end ended it, one-way calls still go
    // out while the handler runs.
    using ClosedHandler = std::function<void(const std::string& reason)>;

    // Takes over a connected Unix stream socket. Fails with the reason when sd-bus can't use it.
    static tl::expected<std::shared_ptr<BusConnection>, std::string> make(Strand strand, UniqueFd socket,
                                                                          BusRole role,
                                                                          BusLimits limits = {});
    ~BusConnection();

    // Answers the calls to `interface` at `path`, one handler per method, in the interface's order. Before
    // start(). `interface` outlives the connection.
    tl::expected<void, std::string> exportInterface(const char* path, const BusInterface& interface,
                                                    std::vector<MethodHandler> handlers);

    // Runs whenever the output is no longer congested. Before start().
    void onUncongested(std::function<void()> uncongested) { uncongested_ = std::move(uncongested); }
    // Begins. The connection keeps itself alive until the socket is closed; `gone`, if there is one, runs
    // then. All handlers are given up afterwards.
    void start(ClosedHandler closed, std::function<void()> gone = {});
    // Ends the connection; the closed handler runs before this returns, or, called from within a handler,
    // right after that handler. Idempotent. A server's peer gets to read all that it was sent, and finds the
    // end after it: whether a call was answered is then the same to both ends.
    void close(const std::string& reason);
    bool isOpen() const;

    // Keeps a call that a handler is given, to answer it later.
    std::shared_ptr<PendingCall> defer(BusMessage& call);
    // Answers a call inside its handler.
    void replyNow(BusMessage& call, const PendingCall::Fill& fill);

    // A call to the peer; nothing when the connection has ended or memory has.
    BusMessage newCall(const char* path, const char* interface, const char* method);
    // Sends without expecting an answer, whether or not the output is congested. Fails with the reason when
    // the connection has ended.
    tl::expected<void, std::string> sendOneWay(BusMessage call);
    // Sends and waits for the answer, without limit. Fails likewise.
    tl::expected<void, std::string> call(BusMessage call, ReplyHandler handler);
    // Whether the peer has left more unread than BusLimits has it.
    bool outputCongested() const;

    const Strand& strand() const { return strand_; }

  private:
    friend class PendingCall;

    template <auto destroy>
    struct Unref {
        template <typename Handle>
        void operator()(Handle* handle) const {
            destroy(handle);
        }
    };
    using BusHandle = std::unique_ptr<sd_bus, Unref<sd_bus_close_unref>>;
    using SlotHandle = std::unique_ptr<sd_bus_slot, Unref<sd_bus_slot_unref>>;

    struct BoundMethod {
        BusConnection* connection;
        MethodHandler handler;
    };
    struct Export {
        std::vector<BoundMethod> methods;
        std::vector<sd_bus_vtable> vtable;
        SlotHandle slot;
    };
    struct SentCall;
    enum Wait : unsigned { kRead, kWrite, kHangUp, kWaits };

    BusConnection(Strand strand, UniqueFd socket, BusRole role, BusLimits limits);
    tl::expected<void, std::string> configure();
    tl::expected<void, std::string> exportHello();

    void begin();
    void pump();
    int processOne();
    void arm();
    void waitFor(Wait wait);
    void woken(Wait wait);
    void armTimer();
    void checkIncomingSize();
    bool inputRests() const;
    void end(const std::string& reason);
    void takeLeave(const std::string& reason);
    void part();
    void parting(Wait wait);
    void drop();

    static int onCall(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;
    static int onAnyMessage(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;
    static int onReply(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;

    void answer(uint64_t id, const PendingCall::Fill& fill);
    void forget(uint64_t id);
    int sendReply(sd_bus_message* call, const PendingCall::Fill& fill);
    bool peerIsGone();
    int send(BusMessage& message);
    void carryOn();
    void noteQueued(size_t bytes);
    void forgetWritten();
    void tellUncongested();
    size_t queuedMessages() const;
    bool canWrite() const;

    Strand strand_;
    const BusRole role_;
    const BusLimits limits_;
    UniqueFd socket_;  // until sd-bus has taken it over
    BusHandle bus_;
    std::deque<Export> exports_;
    SlotHandle filter_;
    asio::posix::stream_descriptor descriptor_;  // the same descriptor as the bus's; never closes it
    asio::steady_timer timer_;
    std::optional<asio::steady_timer::time_point> timerSetFor_;
    std::optional<asio::steady_timer::time_point> authenticationDeadline_;
    ClosedHandler closed_;
    std::function<void()> gone_;
    std::function<void()> uncongested_;

    bool waiting_[kWaits] = {};
    bool pumping_ = false;
    bool turnPosted_ = false;
    bool hungUp_ = false;
    bool parting_ = false;
    std::optional<std::string> closeRequested_;

    size_t messagesRead_ = 0;  // since the last checkIncomingSize()
    size_t bytesOfPartialMessage_ = 0;
    std::deque<size_t> queuedSizes_;  // of the newest messages in sd-bus's queue
    size_t queuedBytes_ = 0;
    bool congested_ = false;  // since uncongested_ last ran
    std::unordered_map<uint64_t, BusMessage> pendingCalls_;
    uint64_t lastCallId_ = 0;
};

}  // namespace telvora
