// SPDX-License-Identifier: Apache-2.0
#include "async/network_queue.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "tests/support/udp_peer.h"

namespace telvora {
namespace {

using namespace std::chrono_literals;
using test::UdpPeer;

class NetworkQueueTest : public testing::Test {
  protected:
    // Runs on the queue and waits for it.
    void onQueue(const std::function<void()>& item) {
        std::promise<void> done;
        queue_->post([&] {
            item();
            done.set_value();
        });
        done.get_future().wait();
    }

    WorkPool pool_{2};
    std::unique_ptr<NetworkQueue> queue_ = makeNetworkQueue(pool_);
};

TEST_F(NetworkQueueTest, TimersFireOnceAndNotAfterCancel) {
    std::promise<void> fired;
    auto cancelled = queue_->makeTimer(), timer = queue_->makeTimer();
    const SteadyTime past = queue_->now() - 1s;
    const auto never = [] { ADD_FAILURE() << "called"; };
    onQueue([&] {
        cancelled->arm(past, 1ns, never);
        timer->arm(past, 1ns, never);
        cancelled->cancel();
        timer->arm(past, 1ns, [&] {
            timer->arm(past, 1ns, [&] {
                timer.reset();      // from within its own call
                fired.set_value();  // a second time, it throws
            });
        });
    });
    fired.get_future().wait();
    onQueue([] {});
}

TEST(SharedWakeupTest, TimersOfOneLeewayFallTogether) {
    const SteadyTime start(1'000'000s);
    EXPECT_EQ(sharedWakeup(start, 100ms), start);
    EXPECT_EQ(sharedWakeup(start + 1ns, 100ms), start + 100ms);
    EXPECT_EQ(sharedWakeup(start + 99ms, 100ms), start + 100ms);
    EXPECT_EQ(sharedWakeup(start + 7ms, 1ns), start + 7ms);
}

TEST_F(NetworkQueueTest, DatagramsGoBothWaysAndAPeerMayGoAndComeBack) {
    UdpPeer peer;
    const auto socket = std::move(*queue_->makeUdpSocket());
    ASSERT_EQ(socket->bindToAnyAddress(), 0);
    ASSERT_TRUE(socket->makeReadSource());
    ASSERT_EQ(socket->connect("127.0.0.1", peer.port()), 0);
    std::promise<std::string> received;
    std::vector<char> buffer(4);
    onQueue([&] {
        EXPECT_TRUE(socket->send("ping"));
        EXPECT_FALSE(socket->send(std::string(70000, 'x')));  // more than a datagram holds
        socket->whenReadable([&] {
            const size_t length = socket->receive(buffer);
            received.set_value(std::string(buffer.data(), length));
        });
    });
    EXPECT_EQ(peer.receive(), "ping");
    peer.answer("ponged");
    EXPECT_EQ(received.get_future().get(), "pong");

    peer.close();
    std::promise<void> refused;
    onQueue([&] {
        EXPECT_EQ(socket->receive(buffer), 0u);  // no datagram, and no wait
        EXPECT_TRUE(socket->send("lost"));
        socket->whenReadable([&] { refused.set_value(); });
    });
    refused.get_future().wait();
    onQueue([&] { EXPECT_FALSE(socket->send("refused")); });
    peer.open();
    onQueue([&] { EXPECT_TRUE(socket->send("back")); });
    EXPECT_EQ(peer.receive(), "back");

    onQueue([&] {
        socket->whenReadable([] { ADD_FAILURE() << "called after closing"; });
        socket->close();
        EXPECT_FALSE(socket->send("late"));
    });
    onQueue([] {});
}

TEST_F(NetworkQueueTest, AddressesAreReadAsDottedDecimals) {
    const auto connect = [this](const char* address) {
        return std::move(*queue_->makeUdpSocket())->connect(address, 9);
    };
    for (const char* address : {"127.0.0.1", "127.1", "127.0.0.1 and more", "127.000.000.0001234"})
        EXPECT_EQ(connect(address), 0) << address;
    for (const char* address :
         {"", "::1", "localhost", "256.0.0.1", "127.0.0.1.", "-1", "255.255.255.255", "127.0.0.1x"})
        EXPECT_EQ(connect(address), EACCES) << address;
}

}  // namespace
}  // namespace telvora
