// SPDX-License-Identifier: Apache-2.0
//
// BusConnection: one end of a peer-to-peer D-Bus connection (D-Bus Specification) on a connected Unix stream
// socket, driven by its strand. A client can also connect to a message bus, whose calls name their
// destination.
//
// How it runs: the strand waits for input. A turn reads once, handles the messages that the read brought, up
// to a bound so that one busy peer can't keep a runner to itself, and writes their answers together. A quiet
// connection has no buffer, no timer and no wakeup.
//
// What a peer can cost is bounded by BusLimits. A client whose answers pile up, or that has too many calls
// unanswered, is not read from until that has changed; its own socket then fills up and it waits. A peer that
// does not authenticate in time, that violates the message format, or that sends a message that is too large,
// is disconnected.
//
// Everything here is called on the connection's strand, except make(), and except that the functions before
// start() may be called by the thread that will call start(). Handlers run on the strand. Connections and
// pending calls must be given up before the pool is.
#pragma once

#include <asio/basic_waitable_timer.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <unordered_map>
#include <variant>
#include <vector>

#include "async/user_turns.h"
#include "async/work_pool.h"
#include "bus/authentication.h"
#include "bus/bus_input.h"
#include "bus/bus_interface.h"
#include "bus/bus_message.h"
#include "bus/bus_output.h"
#include "util/unique_fd.h"
#include "wire/wire_writer.h"

namespace telvora {

// Largest outgoing message, in bytes.
inline constexpr size_t kMaxSentMessage = size_t{16} << 20;

// The reason for the end of a connection whose peer does not authenticate in time.
inline constexpr char kAuthenticationTimedOut[] = "authentication timed out";

enum class BusRole { kServer, kClient };

struct BusLimits {
    // From start() until the peer has authenticated (EXTERNAL: it is who the kernel says it is). Bytes that
    // have arrived by then are in time.
    std::chrono::milliseconds authenticationTimeout{10'000};
    // Largest incoming message, in bytes.
    size_t messageSize = size_t{16} << 20;
    // Outgoing bytes that wait for the peer to read. Beyond it, the output is congested: a server pauses
    // reading, and one-way calls should not be sent.
    size_t queuedBytes = size_t{1} << 20;
    // Calls of the peer that wait for their answer. Beyond it, a server pauses reading.
    size_t pendingCalls = 4096;
    // Whether the peer's messages may carry file descriptors.
    bool descriptors = true;
    // How long the peer of a half-closed connection may take to read its last messages.
    std::chrono::milliseconds drainTimeout{2'000};
};

class BusConnection;

// Why a call was not sent.
enum class BusSendFailure {
    kEnded,     // the connection has ended
    kInvalid,   // the body can't be written
    kTooLarge,  // the message exceeds kMaxSentMessage
};

// Writes the values of a message's body in the order of its signature. False if they can't be written.
using BusBody = std::function<bool(WireWriter& body)>;
// Handles one call of the method with this index in its interface; `call` is at its first argument and has
// the method's signature. An error is answered right away; otherwise the handler has called replyNow() or
// defer(), or there is no answer.
using BusCallHandler = std::function<std::optional<BusError>(size_t method, BusMessage& call)>;

// A received call that is answered later. May be kept, answered and destroyed on any thread, as long as the
// strand's pool exists. The caller gets no answer if it is destroyed unanswered, or an error if an exception
// destroys it, which only a lack of memory can cause.
class PendingCall {
  public:
    PendingCall(std::shared_ptr<BusConnection> connection, uint32_t serial, bool wanted,
                const char* signature, BusCallOrder order)
        : connection_(std::move(connection)),
          serial_(serial),
          wanted_(wanted),
          signature_(signature),
          order_(order) {}
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    // Answers; `body` runs on the strand. The second and all later calls have no effect.
    void reply(BusBody body);

  private:
    const std::shared_ptr<BusConnection> connection_;
    const uint32_t serial_;
    const bool wanted_;
    const char* const signature_;
    const BusCallOrder order_;
    std::atomic<bool> answered_ = false;
};

// Takes the answer to an own call. Destroyed uncalled if the connection ends first.
class BusReplyTarget {
  public:
    virtual ~BusReplyTarget() = default;
    // Called once, with a method return or an error (BusMessage::error()), then destroyed.
    virtual void answered(BusMessage& reply) = 0;
};

class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    // Runs once, when the connection ends, with the reason. If this end ended it, one-way calls can still be
    // sent while the handler runs.
    using ClosedHandler = std::function<void(const std::string& reason)>;

    // Takes over a connected Unix stream socket. Its closer also closes the descriptors that come.
    static std::shared_ptr<BusConnection> make(Strand strand, UniqueFd socket, BusRole role,
                                               BusLimits limits = {});
    ~BusConnection();

    // Passes the calls to `interface` at `path` to `handler`. Before start(). `path` and `interface`
    // outlive the connection.
    void exportInterface(const char* path, const BusInterface& interface, BusCallHandler handler);

    // The turns of the peer's user; null: none are counted. Before start().
    void setUserTurns(std::shared_ptr<UserTurns> turns) { userTurns_ = std::move(turns); }
    // See BusInput::onKept(). A refusal ends the connection. Before start().
    void onInputKept(std::function<bool(size_t bytes)> mayKeep) { input_.onKept(std::move(mayKeep)); }
    // Passes the signals of the peer to `handler`, which reads their arguments. Before start().
    void onSignal(std::function<void(BusMessage& signal)> handler) { signal_ = std::move(handler); }
    // `uncongested` runs each time the output stops being congested. Before start().
    void onUncongested(std::function<void()> uncongested) { uncongested_ = std::move(uncongested); }
    // Begins. The connection keeps itself alive until the socket is closed; then `gone` runs, if it is set.
    // All handlers are destroyed afterwards.
    void start(ClosedHandler closed, std::function<void()> gone = {});
    // Ends the connection. The closed handler runs before this returns, or, if called within a handler, right
    // after that handler. Idempotent. A server's peer still reads all messages that were sent to it, and
    // finds the end after them: both ends agree then on whether a call was answered.
    void close(const std::string& reason);
    bool isOpen() const { return state_ == State::authenticating || state_ == State::ready; }

    // Keeps a handler's call for a later answer. A server's exclusive call postpones the calls that follow
    // it, and the end of the connection, until it has been answered or destroyed.
    std::shared_ptr<PendingCall> defer(BusMessage& call, BusCallOrder order = BusCallOrder::kConcurrent);
    // Asks before each message whether it may be handled now. After false, the messages wait for admit().
    // Before start().
    void onAdmission(std::function<bool()> mayHandle) { mayHandle_ = std::move(mayHandle); }
    // Goes on after a false of the function of onAdmission().
    void admit();
    // Answers a call inside its handler.
    void replyNow(BusMessage& call, const BusBody& body);

    // What an own call is sent to, and the types of its arguments. The texts live for the call.
    struct Destination {
        std::string_view path;
        std::string_view interface;
        std::string_view method;
        std::string_view signature;
    };
    // Sends without expecting an answer, whether or not the output is congested.
    tl::expected<void, BusSendFailure> sendOneWay(const Destination& to, const BusBody& body);
    // Sends a call that WireWriter::complete() can make of these parts, and waits for the answer without a
    // time limit. `descriptors` are sent with the call: a peer that does not take any gets an invalid call.
    // `target` is taken only if the call is sent.
    tl::expected<void, BusSendFailure> call(std::string_view header, std::string_view body,
                                            std::unique_ptr<BusReplyTarget>& target,
                                            std::vector<UniqueFd> descriptors = {});
    // Whether the peer has left more unread than BusLimits allows.
    bool outputCongested() const { return output_.size() >= limits_.queuedBytes; }

    const Strand& strand() const { return strand_; }

  private:
    friend class PendingCall;

    struct Export {
        std::string_view path;
        const BusInterface& interface;
        BusCallHandler handler;
    };
    struct Handshake {
        std::variant<ServerAuthentication, ClientAuthentication> end;  // this one
        std::string output;
    };
    using Timer = asio::basic_waitable_timer<std::chrono::steady_clock,
                                             asio::wait_traits<std::chrono::steady_clock>, Strand>;
    enum class State { created, authenticating, ready, halfClosed, ending, closed };
    enum Wait : unsigned { kRead, kWrite, kHangUp, kWaits };

    BusConnection(Strand strand, UniqueFd socket, BusRole role, BusLimits limits);

    // Runs a step of the strand. A connection that there is no memory for ends; its texts need none.
    template <typename Step>
    void guarded(Step step) {
        try {
            step();
        } catch (const std::bad_alloc&) {
            inTurn_ = false;
            end("no memory");
        }
    }

    // bus_connection.cpp: the turns of the strand and the end of the connection.
    void begin();
    void receive();
    void receiveInTurn();
    void turn();
    bool authenticate();
    bool sendHandshake();
    bool handleMessages(uint64_t begin);
    bool readPaused() const;
    void flush();
    void flushSoon();
    void waitForMore();
    void waitFor(Wait wait);
    void onReady(Wait wait);
    void onAuthenticationTimeout();
    void drain();
    void startTimer(std::chrono::milliseconds time, void (BusConnection::*expired)());
    bool endPostponed();
    void end(const std::string& reason);
    void runClosed(const std::string& reason);
    void halfClose(const std::string& reason);
    void teardown();

    // bus_dispatch.cpp: the messages.
    void dispatch(const MessageView& view, std::vector<UniqueFd> descriptors);
    void handleSignal(const MessageView& view);
    void checkRest(WireReader& body);
    void handleCall(const MessageView& view, std::vector<UniqueFd> descriptors);
    void runHandler(const Export& target, size_t method, BusMessage& call);
    void handleReply(const MessageView& view, std::vector<UniqueFd> descriptors);
    void answerStandard(const MessageView& view);
    BusError unknownTarget(const MessageView& view) const;
    bool hasNode(std::string_view path) const;
    std::string introspect(std::string_view path) const;
    static bool isWanted(const MessageView& call);
    void sendReply(uint32_t serial, bool wanted, std::string_view signature, const BusBody& body);
    void sendError(uint32_t serial, bool wanted, const BusError& error);
    void sendError(const MessageView& call, const BusError& error) {
        sendError(call.serial, isWanted(call), error);
    }
    template <typename Answer>
    void settle(BusCallOrder order, Answer answer);
    uint32_t nextSerial() { return ++lastSerial_ != 0 ? lastSerial_ : ++lastSerial_; }
    tl::expected<void, BusSendFailure> write(MessageView header, const BusBody& body);

    const Strand strand_;
    const BusRole role_;
    const BusLimits limits_;
    UniqueFd socket_;
    asio::posix::basic_stream_descriptor<Strand> descriptor_;  // waits for the socket, without owning it
    std::unique_ptr<Timer> timer_;                             // null if there is no time limit
    State state_ = State::created;
    bool waiting_[kWaits] = {};
    bool inTurn_ = false;
    bool turnPosted_ = false;
    bool flushPosted_ = false;
    bool inputEnded_ = false;
    bool hungUp_ = false;     // the peer reads no more
    bool congested_ = false;  // since uncongested_ last ran
    std::optional<std::string> closeRequested_;
    std::optional<std::string> violation_;

    std::unique_ptr<Handshake> handshake_;  // until the peer has authenticated and everything of it is sent
    bool passesDescriptors_ = false;

    std::shared_ptr<UserTurns> userTurns_;
    BusInput input_;
    BusOutput output_;
    uint32_t lastSerial_ = 0;
    size_t pendingCalls_ = 0;
    size_t exclusiveCalls_ = 0;
    // This connection, while its messages wait for admit(): after a hang-up, no event of the socket holds it.
    std::shared_ptr<BusConnection> awaitsAdmission_;
    using Replies = std::unordered_map<uint32_t, std::unique_ptr<BusReplyTarget>>;
    std::unique_ptr<Replies> replies_;  // null before the first own call
    std::vector<Export> exports_;
    ClosedHandler closed_;
    std::function<void()> gone_;
    std::function<void()> uncongested_;
    std::function<bool()> mayHandle_;
    std::function<void(BusMessage& signal)> signal_;
};

}  // namespace telvora
