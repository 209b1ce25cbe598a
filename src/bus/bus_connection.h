// SPDX-License-Identifier: Apache-2.0
//
// BusConnection: one end of a peer-to-peer D-Bus connection (D-Bus Specification; sd-bus(3)) on a connected
// Unix stream socket, driven by its strand.
//
// sd-bus never blocks and never waits here. The strand waits for the events and the timeout that
// sd_bus_get_events(3) and sd_bus_get_timeout(3) return, then processes the available input: a bounded number
// of messages per turn, so that one busy peer does not occupy a thread. A quiet connection has no timer and
// no wakeup.
//
// BusLimits bounds the cost of a peer. A server stops reading from a client whose answers pile up or that has
// too many unanswered calls; the client's socket then fills up and the client waits. A peer that does not
// authenticate in time, or that sends too large a message, is disconnected.
//
// All functions are called on the connection's strand, except make(), and except that the functions before
// start() may be called by the thread that will call start(). Handlers run on the strand. Connections and
// pending calls must be destroyed before the pool.
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

#include "async/work_pool.h"
#include "bus/bus_interface.h"
#include "bus/bus_message.h"
#include "util/unique_fd.h"

namespace telvora {

enum class BusRole { kServer, kClient };

struct BusLimits {
    // From start() until the peer has authenticated (EXTERNAL: the user that the kernel reports).
    std::chrono::milliseconds authenticationTimeout{10'000};
    // Largest incoming message, in bytes. sd-bus reads on as long as there is more to read, and the size is
    // checked in between: a peer that writes as fast as it is read from can send more, but never more than
    // the 128 MiB at which sd-bus itself ends the connection.
    size_t messageSize = size_t{16} << 20;
    // Outgoing bytes and messages that wait for the peer to read. Beyond either, the output is congested: a
    // server pauses reading, and one-way calls should wait.
    size_t queuedBytes = size_t{1} << 20;
    size_t queuedMessages = 1024;
    // Calls of the peer that wait for their answer. Beyond it, a server pauses reading.
    size_t pendingCalls = 4096;
    // Time that a half-closed server connection leaves its peer to read its last messages.
    std::chrono::milliseconds drainTimeout{2'000};
};

class BusConnection;

// A received call that is answered later. May be kept, answered and destroyed on any thread, as long as the
// strand's pool exists. The caller gets no answer if it is destroyed unanswered.
class PendingCall {
  public:
    // Appends the answer's body; a negative errno makes it an error reply instead. Runs on the strand.
    using Fill = std::function<int(BusMessage& reply)>;

    PendingCall(std::shared_ptr<BusConnection> connection, uint64_t id);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    // Answers. The second and all later calls have no effect. On the strand the answer is sent before this
    // returns.
    void reply(Fill fill);

  private:
    std::shared_ptr<BusConnection> connection_;
    uint64_t id_;
    std::atomic<bool> answered_ = false;
};

class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    // Takes the answer to an own call: a method return, or an error (BusMessage::error()). Destroyed uncalled
    // if the connection ends first.
    using ReplyHandler = std::function<void(BusMessage& reply)>;
    // Runs once, when the connection ends, with the reason. If this end ended it, one-way calls can still be
    // sent while the handler runs.
    using ClosedHandler = std::function<void(const std::string& reason)>;

    // Takes over a connected Unix stream socket. Fails with sd-bus's reason.
    static tl::expected<std::shared_ptr<BusConnection>, std::string> make(Strand strand, UniqueFd socket,
                                                                          BusRole role,
                                                                          BusLimits limits = {});
    ~BusConnection();

    // Passes the calls to `interface` at `path` to `handler`. Before start(). `interface` outlives the
    // connection.
    tl::expected<void, std::string> exportInterface(const char* path, const BusInterface& interface,
                                                    BusCallHandler handler);

    // `uncongested` runs each time the output stops being congested. Before start().
    void onUncongested(std::function<void()> uncongested) { uncongested_ = std::move(uncongested); }
    // Begins. The connection keeps itself alive until the socket is closed; then `gone` runs, if it is set.
    // All handlers are destroyed afterwards.
    void start(ClosedHandler closed, std::function<void()> gone = {});
    // Ends the connection. The closed handler runs before this returns, or, if called within a handler, right
    // after that handler. Idempotent. A server's peer still reads all messages that were sent to it, and
    // finds the end after them: both ends agree then on whether a call was answered.
    void close(const std::string& reason);
    bool isOpen() const;

    // Keeps a handler's call for a later answer.
    std::shared_ptr<PendingCall> defer(BusMessage& call);
    // Answers a call inside its handler.
    void replyNow(BusMessage& call, const PendingCall::Fill& fill);

    // A call to the peer. An empty message if the connection has ended or memory is exhausted.
    BusMessage newCall(const char* path, const char* interface, const char* method);
    // Sends without expecting an answer, whether or not the output is congested. Fails with the reason if the
    // connection has ended.
    tl::expected<void, std::string> sendOneWay(BusMessage call);
    // Sends and waits for the answer, without a time limit. Fails likewise.
    tl::expected<void, std::string> call(BusMessage call, ReplyHandler handler);
    // Whether the peer has left more unread than BusLimits allows.
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
    void onReady(Wait wait);
    void armTimer();
    void checkIncomingSize();
    bool readPaused() const;
    void end(const std::string& reason);
    void halfClose(const std::string& reason);
    void shutdownWhenWritten();
    void drain(Wait wait);
    void teardown();

    static int onAnyMessage(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;
    static int onReply(sd_bus_message* message, void* userdata, sd_bus_error* error) noexcept;

    void answer(uint64_t id, const PendingCall::Fill& fill);
    void abandon(uint64_t id);
    int sendReply(sd_bus_message* call, const PendingCall::Fill& fill);
    bool peerHungUp();
    int send(BusMessage& message);
    void rearm();
    void noteQueued(size_t bytes);
    void discardWritten();
    void notifyUncongested();
    size_t queuedMessages() const;
    bool canWrite() const;

    Strand strand_;
    const BusRole role_;
    const BusLimits limits_;
    UniqueFd socket_;  // until sd-bus has taken it over
    BusHandle bus_;
    std::deque<BusExport> exports_;
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
    bool halfClosed_ = false;
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
