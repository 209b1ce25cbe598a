// SPDX-License-Identifier: Apache-2.0
#include "http/exchange_queue.h"

#include <gtest/gtest.h>

#include "http/http_request_rules.h"
#include "http/server_outcomes.h"

namespace telvora {
namespace {

class Queue {
  public:
    Queue(size_t slots, size_t slotsPerServer) : queue_(slots, slotsPerServer) {}

    HttpExchange& add(uid_t user, const std::string& server) {
        auto exchange = std::make_unique<HttpExchange>();
        exchange->request.user = user;
        exchange->request.url = server + std::to_string(++added_);
        exchange->server = server;
        HttpExchange& added = *exchange;
        queue_.add(exchange);
        return added;
    }
    // Starts all exchanges that may start. Returns their users, servers and numbers.
    std::string start() {
        std::string started;
        while (auto exchange = queue_.takeNext()) {
            started += std::to_string(*exchange->request.user) + exchange->request.url + " ";
            started_.push_back(std::move(exchange));
        }
        return started;
    }
    size_t startedNow() {
        const size_t before = started_.size();
        start();
        return started_.size() - before;
    }
    void endFirst() {
        queue_.release(*started_.front());
        started_.erase(started_.begin());
    }
    bool end() {
        while (const HttpExchange* waiting = queue_.anyWaiting())
            queue_.remove(*waiting);
        while (!started_.empty())
            endFirst();
        return queue_.empty();
    }
    HttpExchange& firstStarted() { return *started_.front(); }
    ExchangeQueue* operator->() { return &queue_; }

  private:
    ExchangeQueue queue_;
    std::vector<std::unique_ptr<HttpExchange>> started_;
    int added_ = 0;
};

TEST(ExchangeQueue, ServesUsersInTurnAndTheirServersInTurnAndKeepsTheOrderOfEachLine) {
    Queue queue(100, 100);
    for (const char* server : {"a", "a", "b", "a", "b"})
        queue.add(1, server);
    queue.add(2, "a");
    HttpExchange& removed = queue.add(1, "b");
    queue.add(1, "b");
    EXPECT_EQ(queue->remove(removed).get(), &removed);
    EXPECT_EQ(queue.start(), "1a1 2a6 1b3 1a2 1b5 1a4 1b8 ");
    EXPECT_TRUE(queue.end());
}

TEST(ExchangeQueue, GivesAUserAsManySlotsAsAreLeftFree) {
    Queue all(64, 64), server(64, 12);
    const auto startedOf = [](Queue& queue, uid_t user, bool oneServer) {
        for (int i = 0; i < 100; ++i)
            queue.add(user, "s" + std::to_string(oneServer ? 0 : i));
        return queue.startedNow();
    };
    uid_t user = 0;
    for (const size_t slots : {32, 16, 8, 4, 2, 1, 1, 0})
        EXPECT_EQ(startedOf(all, ++user, false), slots) << user;
    all.endFirst();
    EXPECT_EQ(all.start().substr(0, 1), "8");  // not to a user who has slots
    for (const size_t slots : {6, 3, 1, 1, 1, 0})
        EXPECT_EQ(startedOf(server, ++user, true), slots) << user;
    server->extendServer(server.firstStarted(), 20);
    EXPECT_GT(server.startedNow(), 1u);
    EXPECT_TRUE(all.end() && server.end());
}

TEST(ExchangeQueue, KnowsAServerByEachOfItsUrls) {
    for (const char* url : {"http://host", "HTTP://u:p@HOST:80/a@b:1", "http://host:?x", "http://host:080#f"})
        EXPECT_EQ(serverOfUrl(url), "http://host:80") << url;
    EXPECT_EQ(serverOfUrl("https://[FE80::1]/"), "https://[fe80::1]:443");
    EXPECT_EQ(serverOfUrl("https://[::1]:8443"), "https://[::1]:8443");
}

TEST(ServerOutcomes, RemembersFailuresByAddressAndForgetsTheOldest) {
    ServerOutcomes outcomes;
    const HttpResult failure = tl::unexpected(HttpError{7, "no route"});
    for (const auto& [status, failures] : {std::pair(200, 0u), {304, 0u}, {404, 1u}, {503, 2u}, {299, 2u}}) {
        outcomes.record("http://h/?1", HttpResponse{status, {}, {}}, status);
        EXPECT_EQ(outcomes.addresses()[0].failures, failures) << status;
    }
    EXPECT_EQ(outcomes.addresses()[0].lastFailure->status, 503);
    for (int i = 0; i < 64; ++i)
        outcomes.record("http://new/" + std::to_string(i), failure, 1000 + i);
    const auto all = outcomes.addresses();
    EXPECT_EQ(all.size(), ServerOutcomes::kMaxAddresses);
    EXPECT_EQ(all[0].url, "http://new/0");
    EXPECT_EQ(all[0].lastFailure->reason, "no route");
}

}  // namespace
}  // namespace telvora
