// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_connection.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <asio/post.hpp>
#include <future>
#include <thread>

#include "async/descriptor_closers.h"
#include "bus/bus_buffers.h"
#include "bus/bus_input.h"
#include "bus/bus_output.h"
#include "tests/support/bus_peer.h"
#include "tests/support/hostile_descriptors.h"
#include "wire/wire_writer.h"

namespace telvora {
namespace {

using namespace std::chrono_literals;
using namespace std::string_view_literals;
using test::BusPeer;
using test::errorName;
using test::SdBusMessage;

constexpr char kPath[] = "/test", kInterface[] = "com.example.Test";
const BusInterface kMethods(kInterface, {{"Fill", {{"bytes", "u"}}, {{"text", "s"}}},
                                         {"Fail", {}, {}},
                                         {"Keep", {}, {}},
                                         {"Close", {}, {{"text", "s"}}}});

const auto kEmpty = [](WireWriter&) { return true; };

MessageView callOf(const char* member, const char* signature, size_t descriptors) {
    MessageView header;
    header.type = MessageType::methodCall;
    header.serial = 1;
    header.path = kPath;
    header.interface = kInterface;
    header.member = member;
    header.signature = signature;
    header.descriptors = static_cast<uint32_t>(descriptors);
    return header;
}

class BusConnectionTest : public testing::Test {
  protected:
    // A served connection and the future of the reason for its end.
    struct Served {
        std::shared_ptr<BusConnection> bus;
        UniqueFd peer;
        std::future<std::string> ended;
    };

    Served serve(
        BusLimits limits = {}, const std::function<void(BusConnection&)>& prepare = [](auto&) {}) {
        test::SocketPair sockets;
        auto bus = BusConnection::make(pool_.makeStrand(), std::move(sockets.ours), BusRole::kServer, limits);
        const auto handle = [this, bus = bus.get()](size_t method,
                                                    BusMessage& call) -> std::optional<BusError> {
            if (method == 1) throw std::runtime_error("thrown");
            if (method == 2) {
                pending_.push_back(bus->defer(call, order_));
                if (pending_.size() == awaited_) allPending_.set_value();
                return std::nullopt;
            }
            if (method == 3) bus->close("asked to");
            uint32_t size = 0;
            call.reader().read(size);
            filled_ += size;
            bus->replyNow(call, [size](WireWriter& body) {
                body.append(std::string(size, 'x'));
                return true;
            });
            return std::nullopt;
        };
        bus->exportInterface(kPath, kMethods, handle);
        prepare(*bus);
        auto ended = std::make_shared<std::promise<std::string>>();
        bus->start([ended](const std::string& reason) { ended->set_value(reason); });
        return {bus, std::move(sockets.theirs), ended->get_future()};
    }
    // Runs `work` on the connection's strand and waits for it.
    static void onStrand(
        const Served& served, const std::function<void()>& work = [] {}) {
        std::promise<void> done;
        asio::post(served.bus->strand(), [&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    static void endAndWait(Served& served) {
        onStrand(served, [&] { served.bus->close("done"); });
        served.ended.wait();
    }
    static SdBusMessage fillCall(BusPeer& peer, uint32_t size) {
        SdBusMessage call = peer.newCall(kPath, kInterface, "Fill");
        call.append('u', &size);
        return call;
    }
    static uint64_t sendKeep(BusPeer& peer) { return peer.send(peer.newCall(kPath, kInterface, "Keep")); }
    // Sends calls, and waits until `awaited_` of them are pending, and no other.
    void keepCalls(const Served& served, BusPeer& peer, int calls) {
        onStrand(served, [this] {
            pending_.clear();
            allPending_ = {};
        });
        for (int i = 0; i < calls; ++i)
            sendKeep(peer);
        peer.flush();
        allPending_.get_future().wait();
    }
    static void sendAll(const Served& served, std::string_view bytes) {
        for (ssize_t sent = 1; sent > 0 && !bytes.empty(); bytes.remove_prefix(sent > 0 ? sent : 0))
            sent = send(served.peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    std::atomic<size_t> filled_ = 0;  // bytes
    WorkPool pool_{2};
    std::vector<std::shared_ptr<PendingCall>> pending_;
    BusCallOrder order_ = BusCallOrder::kConcurrent;
    size_t awaited_ = 2;
    std::promise<void> allPending_;
};

TEST_F(BusConnectionTest, AnswersCallsAndErrorsAndHello) {
    Served served = serve();
    BusPeer peer(std::move(served.peer));
    const struct {
        const char *path, *interface, *method;
        std::string error, message = "";
    } cases[] = {
        {"/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello", ""},
        {kPath, kInterface, "Fill", kBusErrorInvalidArgs,  // its argument is missing
         "Invalid arguments '' to call com.example.Test.Fill(), expecting 'u'."},
        {kPath, kInterface, "Fail", kBusErrorFailed, "thrown"},
        {kPath, kInterface, "Unknown", "org.freedesktop.DBus.Error.UnknownMethod",
         "Unknown method Unknown or interface com.example.Test."},
        {"/unknown", kInterface, "Fill", "org.freedesktop.DBus.Error.UnknownObject",
         "Unknown object '/unknown'."},
        {"/", "org.freedesktop.DBus.Peer", "Ping", ""},
        {"/unknown", "org.freedesktop.DBus.Introspectable", "Introspect",
         "org.freedesktop.DBus.Error.UnknownObject", "Unknown object '/unknown'."},
        {"/", "org.freedesktop.DBus.Peer", "GetMachineId", "org.freedesktop.DBus.Error.AccessDenied",
         "The machine's identity is not for peers."},
    };
    for (const auto& c : cases) {
        const SdBusMessage reply = peer.call(peer.newCall(c.path, c.interface, c.method));
        EXPECT_EQ(errorName(reply), c.error) << c.method;
        EXPECT_EQ(reply.error().value_or(BusError{}).message, c.message);
    }
    EXPECT_EQ(errorName(peer.call(fillCall(peer, kMaxSentMessage))), kBusErrorFailed)
        << "too large an answer";
    const SdBusMessage unanswered = fillCall(peer, 1);
    sd_bus_message_set_expect_reply(unanswered.get(), false);
    peer.send(unanswered);
    const uint64_t next = peer.send(fillCall(peer, 1));
    EXPECT_EQ(peer.receive().answeredCookie(), next);
    SdBusMessage description =
        peer.call(peer.newCall(kPath, "org.freedesktop.DBus.Introspectable", "Introspect"));
    const char* xml = "";
    description.read('s', &xml);
    EXPECT_THAT(xml, testing::HasSubstr("<arg type=\"u\" name=\"bytes\" direction=\"in\"/>\n   <arg "
                                        "type=\"s\" name=\"text\" direction=\"out\"/>"));
    EXPECT_EQ(errorName(peer.call(peer.newCall(kPath, kInterface, "Close"))), "") << "answered, then ended";
    EXPECT_EQ(served.ended.get(), "asked to");
}

TEST_F(BusConnectionTest, AnExclusiveCallPostponesTheCallsThatFollowAndTheEnd) {
    order_ = BusCallOrder::kExclusive;
    awaited_ = 1;
    Served served = serve();
    BusPeer peer(std::move(served.peer));
    const uint64_t kept = sendKeep(peer);
    peer.send(fillCall(peer, 1));
    peer.flush();
    allPending_.get_future().wait();
    onStrand(served);
    EXPECT_EQ(filled_, 0u);
    pending_[0]->reply(kEmpty);
    EXPECT_EQ(peer.receive().answeredCookie(), kept);
    peer.receive();
    EXPECT_EQ(filled_, 1u);

    keepCalls(served, peer, 1);
    onStrand(served, [&] { served.bus->close("done"); });
    peer.close();
    onStrand(served);
    EXPECT_EQ(served.ended.wait_for(0s), std::future_status::timeout);
    pending_.clear();  // unanswered
    EXPECT_EQ(served.ended.get(), "done");
}

TEST_F(BusConnectionTest, MessagesWaitForAdmission) {
    for (const std::string course : {"stays", "leaves", "no memory"}) {
        const bool leaves = course == "leaves", noMemory = course == "no memory";
        std::promise<void> asked;
        bool admitted = false;
        filled_ = 0;
        Served served = serve({}, [&](BusConnection& bus) {
            bus.onAdmission([&] {
                if (!admitted) asked.set_value();
                if (admitted && noMemory) throw std::bad_alloc();
                return admitted;
            });
        });
        BusPeer peer(std::move(served.peer));
        peer.send(fillCall(peer, 1));
        peer.flush();
        asked.get_future().wait();
        onStrand(served);
        if (leaves) {
            const long waiting = served.bus.use_count();
            peer.close();
            while (served.bus.use_count() == waiting)  // until the strand has seen it
                std::this_thread::yield();
        }
        const std::weak_ptr<BusConnection> held = std::exchange(served.bus, nullptr);
        served.bus = held.lock();
        ASSERT_TRUE(served.bus) << "a connection that waits has ended without a word";
        onStrand(served, [&] {
            EXPECT_EQ(filled_, 0u);
            admitted = true;
            served.bus->admit();
        });
        if (course == "stays") {
            peer.receive();
            onStrand(served, [&] { served.bus->close("done"); });
        }
        EXPECT_EQ(served.ended.get() == course, noMemory);
        EXPECT_EQ(filled_, noMemory ? 0u : 1u);
    }
}

TEST_F(BusConnectionTest, EndsPeersThatDoNotAuthenticate) {
    const std::string flood(1 << 20, 'A');
    constexpr auto kDeaf = "\0AUTH EXTERNAL\r\n"sv;  // of a peer that reads no answer
    Served bystander = serve();
    BusPeer peer(std::move(bystander.peer));
    for (const std::string_view bytes :
         {""sv, "\0"sv, "GET / HTTP/1.1\r\n\r\n"sv, "\0AUTH ANONYMOUS\r\nBEGIN\r\n"sv,
          "\0AUTH EXTERNAL 3939393939\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"sv,  // somebody else
          "\0\r\n\r\n\r\n\xff\xff\xff\xff"sv, kDeaf, std::string_view(flood)}) {
        BusLimits limits;
        if (bytes != flood && bytes != kDeaf) limits.authenticationTimeout = 20ms;
        Served served = serve(limits);
        if (bytes == kDeaf) shutdown(served.peer.get(), SHUT_RD);
        sendAll(served, bytes);
        const std::string reason = served.ended.get();
        EXPECT_EQ(reason == "the peer has closed the connection", bytes == kDeaf) << reason;
        EXPECT_EQ(errorName(peer.call(fillCall(peer, 1))), "");
    }
    endAndWait(bystander);
}

TEST_F(BusConnectionTest, APeerIsNotLateWhoseBytesWaitForItsUsersTurn) {
    const auto busy = std::make_shared<UserTurns>();
    std::promise<void> served;
    Served late = serve({.authenticationTimeout = 0ms}, [&](BusConnection& bus) {
        bus.setUserTurns(busy);
        asio::post(bus.strand(), [&] { served.get_future().wait(); });
    });
    // Runs after the connection has looked for input, and before its time limit is checked.
    asio::post(late.bus->strand(), [&] {
        busy->add(UserTurns::kBusyBytes + 1);
        sendAll(late, ClientAuthentication::greeting());
        close(late.peer.release());
    });
    served.set_value();
    EXPECT_EQ(late.ended.get(), "the peer has closed the connection");
}

TEST_F(BusConnectionTest, EndsAPeerWhoseMessageTakesTooMuchRoom) {
    constexpr size_t kLimit = 128 << 10;
    for (const char* reason : {"a message is too large", "too much input of the peer's user waits"}) {
        BusLimits limits;
        if (*reason == 'a') limits.messageSize = kLimit;
        Served served =
            serve(limits, [](auto& bus) { bus.onInputKept([](size_t bytes) { return bytes <= kLimit; }); });
        // A method call whose header announces a body of 1 MiB.
        const uint32_t words[] = {0x01000000u | 'l' | 1u << 8, 1u << 20, 1, 0};
        sendAll(served, "\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n"sv);
        sendAll(served, {reinterpret_cast<const char*>(words), sizeof words});

        // Each piece is read before the next one comes, as from a peer that is no faster than this end.
        const std::string piece(8 << 10, '\0');
        size_t accepted = 0;
        for (ssize_t sent = 0;
             (sent = send(served.peer.get(), piece.data(), piece.size(), MSG_NOSIGNAL)) > 0;) {
            accepted += static_cast<size_t>(sent);
            for (int unread = 1; unread > 0 && ioctl(served.peer.get(), SIOCOUTQ, &unread) == 0;)
                std::this_thread::yield();
            onStrand(served);
        }
        EXPECT_LT(accepted, 2 * kLimit);
        EXPECT_EQ(served.ended.get(), reason);
    }
}

TEST_F(BusConnectionTest, EndsAPeerThatViolatesTheMessageFormat) {
    order_ = BusCallOrder::kExclusive;
    awaited_ = 1;
    const struct {
        const char *method, *signature, *reason;
        uint32_t descriptors;
    } cases[] = {
        {"Fill", "u", "bytes are left after the last value", 0},
        {"Keep", "", "bytes are left after the last value", 0},  // ends after its answer
        {"Unknown", "bu", "a boolean is neither 0 nor 1", 0},
        {"Fill", "uu", "a file descriptor did not come with its message", 1},
    };
    for (const auto& c : cases) {
        Served served = serve();
        std::string bytes(ClientAuthentication::greeting());
        WireWriter writer(bytes, callOf(c.method, c.signature, c.descriptors));
        writer.append(uint32_t{2});
        writer.append(uint32_t{2});
        ASSERT_TRUE(writer.finish(1024));
        sendAll(served, bytes);
        if (c.method == "Keep"sv) {
            allPending_.get_future().wait();
            onStrand(served);
            EXPECT_EQ(served.ended.wait_for(0s), std::future_status::timeout);
            pending_.clear();
        }
        EXPECT_EQ(served.ended.get(), c.reason);
    }
}

TEST_F(BusConnectionTest, AClientThatClosesHasSentItsCalls) {
    Served served = serve();
    const auto client = BusConnection::make(pool_.makeStrand(), std::move(served.peer), BusRole::kClient);
    std::promise<void> answered, closed, tried;
    client->start([&](const std::string&) { closed.set_value(); });
    struct Target : BusReplyTarget {
        explicit Target(std::promise<void>& answered) : answered_(answered) {}
        void answered(BusMessage&) override { answered_.set_value(); }
        std::promise<void>& answered_;
    };
    asio::post(client->strand(), [&] {
        MessageView view;
        view.type = MessageType::methodCall;
        view.path = kPath;
        view.interface = kInterface;
        view.member = "Fill";
        view.signature = "u";
        std::string header, body;
        EXPECT_TRUE(WireWriter(header, view).finish(kMaxSentMessage));
        WireWriter writer(body);
        writer.append(uint32_t{1});
        EXPECT_TRUE(writer.finish(kMaxSentMessage));
        std::unique_ptr<BusReplyTarget> target = std::make_unique<Target>(answered);
        EXPECT_TRUE(client->call(header, body, target));
    });
    answered.get_future().wait();
    asio::post(client->strand(), [&] {
        const auto keep = [&] { return client->sendOneWay({kPath, kInterface, "Keep", ""}, kEmpty); };
        EXPECT_TRUE(keep() && keep());
        client->close("done");
        EXPECT_FALSE(keep());
        tried.set_value();
    });
    allPending_.get_future().wait();
    tried.get_future().wait();
    closed.get_future().wait();
    served.ended.wait();
}

TEST_F(BusConnectionTest, LetsAPeerThatStillWritesReadItsLastAnswers) {
    for (const uint32_t bytes : {100u << 10, 1u}) {  // more than the socket holds, and less
        Served served = serve();
        BusPeer peer(std::move(served.peer));
        constexpr int kAnswers = 8;
        for (int i = 0; i < kAnswers; ++i)
            peer.send(fillCall(peer, bytes));
        keepCalls(served, peer, 2);
        endAndWait(served);
        sendKeep(peer);
        peer.flush();
        int answers = 0;
        while (peer.receive())
            ++answers;
        EXPECT_EQ(answers, kAnswers);
        onStrand(served,
                 [&] { EXPECT_EQ(pending_.size(), 2u) << "calls after the end are not carried out"; });
    }
}

TEST_F(BusConnectionTest, PausesReadingWhileAnswersAreUnread) {
    BusLimits limits;
    limits.queuedBytes = 256 << 10;
    Served served = serve(limits), bystander = serve();
    BusPeer peer(std::move(served.peer)), other(std::move(bystander.peer));
    constexpr int kCalls = 200;
    for (int i = 0; i < kCalls; ++i)
        peer.send(fillCall(peer, 64 << 10));
    peer.flush();
    EXPECT_EQ(errorName(other.call(fillCall(other, 1))), "");
    // Nothing is lost meanwhile: once the peer reads, every answer comes.
    for (size_t i = 0; i < kCalls; ++i) {
        ASSERT_LT(filled_ - i * (64 << 10), size_t{2} << 20) << "the sockets and the queue hold less";
        ASSERT_EQ(errorName(peer.receive()), "");
    }
    endAndWait(served);
    endAndWait(bystander);
}

TEST_F(BusConnectionTest, PausesReadingWhileCallsArePending) {
    BusLimits limits;
    limits.pendingCalls = 2;
    Served served = serve(limits);
    BusPeer peer(std::move(served.peer));
    keepCalls(served, peer, 3);
    std::shared_ptr<PendingCall> first;  // the strand adds the third to the others meanwhile
    onStrand(served, [&] {
        EXPECT_EQ(pending_.size(), 2u);
        first = pending_.at(0);
    });
    for (int i = 0; i < 2; ++i)
        first->reply(kEmpty);  // makes room for the third, and once only
    EXPECT_EQ(errorName(peer.receive()), "");
    onStrand(served, [&] { pending_.clear(); });  // makes room as well
    EXPECT_EQ(errorName(peer.call(fillCall(peer, 1))), "");

    // The hang-up of a peer whose input is paused is noticed; later answers are dropped.
    keepCalls(served, peer, 3);
    peer.close();
    served.ended.wait();
    for (const auto& call : pending_)
        call->reply(kEmpty);
}

TEST(BusBuffersTest, CarryEachMessageWithItsDescriptors) {
    test::SocketPair sockets;
    BusOutput output;
    for (const size_t count : {size_t{1}, size_t{2}, kMaxDescriptors, size_t{1}}) {
        std::vector<UniqueFd> descriptors(count);
        for (UniqueFd& descriptor : descriptors)
            descriptor.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
        output.attach(output.buffer().size(), std::move(descriptors));
        ASSERT_TRUE(WireWriter(output.buffer(), callOf("M", "", count)).finish(1 << 10));
    }
    EXPECT_TRUE(output.flush(sockets.ours.get()).value_or(false));
    BusInput input(1 << 10);
    for (const uint32_t count : {1U, 2U}) {
        ASSERT_TRUE(input.receive(sockets.theirs.get()).has_value());
        EXPECT_TRUE(input.nextMessage().value_or(std::nullopt).has_value());
        const std::vector<UniqueFd> taken = input.takeDescriptors(count);
        EXPECT_EQ(taken.size(), count);
        for (const UniqueFd& descriptor : taken)
            EXPECT_GE(fcntl(descriptor.get(), F_GETFD), 0);
        input.keepRest();
    }
    EXPECT_TRUE(input.receive(sockets.theirs.get()).has_value());
    EXPECT_FALSE(input.receive(sockets.theirs.get()).has_value()) << "more than may wait";
}

TEST(BusInputTest, ClosesNoDescriptorItself) {
    const UniqueFd listener = test::silentListener();
    DescriptorClosers closers;
    test::SocketPair sockets;
    const UniqueFd ours(sockets.ours.release(), closers.of(5));
    {
        const UniqueFd harmless(open("/dev/null", O_RDONLY | O_CLOEXEC));
        const UniqueFd lingering = test::lingeringSocket(listener);
        std::vector<int> descriptors(60, harmless.get());
        descriptors.push_back(lingering.get());
        ASSERT_TRUE(test::sendWith(sockets.theirs.get(), "x", descriptors));
    }
    BusInput input(1024, ours.closer()->ofReceived());
    const auto received = input.receive(ours.get());
    ASSERT_FALSE(received);
    EXPECT_EQ(received.error(), "too many file descriptors wait for their message");
}

}  // namespace
}  // namespace telvora
