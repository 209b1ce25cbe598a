// SPDX-License-Identifier: Apache-2.0
//
// Servers that answer slowly, on purpose or not, and the users and servers that must not suffer from them.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <future>
#include <semaphore>

#include "http/http_client.h"
#include "tests/support/child_process.h"
#include "tests/support/scripted_server.h"

namespace {

std::counting_semaphore<> lookupBegun{0}, lookupMayEnd{0};

}  // namespace

// Takes the place of the C library's function, for libcurl too.
extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints, addrinfo** found) {
    if (host != nullptr && std::string_view(host) == "hangs.example") {
        lookupBegun.release();
        lookupMayEnd.acquire();
        return EAI_AGAIN;
    }
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(host, service, hints, found);
}

namespace telvora {
namespace {

using namespace std::chrono_literals;
using test::kPatience;
using test::ScriptedServer;
using Connection = ScriptedServer::Connection;

const std::string kDrippedHead = "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n";

void dripUntilClosed(Connection& connection) {
    connection.send(kDrippedHead);
    while (!connection.waitForEnd(10ms))
        connection.send("x");
}

class SlowServers : public testing::Test {
  protected:
    // Answers "/fast" at once, and drips on all other paths.
    std::unique_ptr<ScriptedServer> makeServer() {
        return std::make_unique<ScriptedServer>([this](Connection& connection) {
            for (std::string request; !(request = connection.readRequest()).empty();) {
                if (request.find(" /fast ") == std::string::npos) {
                    dripping_.release();
                    return dripUntilClosed(connection);
                }
                connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
            }
        });
    }
    static std::future<HttpResult> startIn(HttpClient& client, HttpRequest request) {
        auto promise = std::make_shared<std::promise<HttpResult>>();
        client.start(std::move(request), [promise](HttpResult r) { promise->set_value(std::move(r)); });
        return promise->get_future();
    }
    static bool isAnswered(HttpClient& client, HttpRequest request) {
        std::future<HttpResult> result = startIn(client, std::move(request));
        return result.wait_for(kPatience) == std::future_status::ready && result.get().has_value();
    }

    std::counting_semaphore<> dripping_{0};
};

TEST_F(SlowServers, LeaveConnectionsToOtherUsersAndToBags) {
    constexpr uid_t kSlow = 1, kCanary = 2;
    std::vector<std::unique_ptr<ScriptedServer>> servers(6);
    for (auto& server : servers)
        server = makeServer();
    const auto client = makeCurlHttpClient({.maxPendingRequests = 300});
    size_t refused = 0;
    for (int i = 0; i < 100; ++i) {
        for (const auto& server : servers) {
            const auto result = startIn(*client, {.url = server->url("/slow"), .user = kSlow});
            refused += result.wait_for(0s) == std::future_status::ready;
        }
    }
    for (int i = 0; i < 32; ++i)
        ASSERT_TRUE(dripping_.try_acquire_for(kPatience)) << i;
    const auto healthy = makeServer();
    for (const auto* server : {healthy.get(), servers.front().get()}) {
        const std::string url = server->url("/fast");
        EXPECT_TRUE(isAnswered(*client, {.url = url, .user = kCanary}));
        EXPECT_TRUE(isAnswered(*client, {.url = url, .purpose = HttpPurpose::bag, .user = kSlow}));
    }
    EXPECT_FALSE(dripping_.try_acquire());
    EXPECT_EQ(refused, 600u - 200u);
}

TEST_F(SlowServers, MayNotExceedTheTimeOfTheRequest) {
    const auto server = makeServer();
    const auto client = makeCurlHttpClient({.maxReportTime = 30ms, .maxUploadTime = 60ms});
    const struct {
        HttpRequest request;
        const char* milliseconds;
    } cases[] = {{{}, "30"},
                 {{.method = "POST", .body = std::string(1024, 'x')}, "92"},
                 {{.purpose = HttpPurpose::upload}, "60"}};
    for (const auto& each : cases) {
        HttpRequest request = each.request;
        request.url = server->url("/slow");
        const HttpResult result = performBlocking(*client, request);
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().description,
                  std::string("no complete answer within ") + each.milliseconds + " ms");
        EXPECT_EQ(result.error().kind, HttpError::Kind::noAnswer);
    }

    const auto impatient = makeCurlHttpClient({.maxConnectionsPerHost = 1, .maxWaitInLine = 20ms});
    const std::future<HttpResult> dripped = startIn(*impatient, {.url = server->url("/slow")});
    ASSERT_TRUE(dripping_.try_acquire_for(kPatience));
    const HttpResult waited = performBlocking(*impatient, {.url = server->url("/fast")});
    ASSERT_FALSE(waited);
    EXPECT_EQ(waited.error().description, "no connection was free within 20 ms");
    EXPECT_EQ(waited.error().kind, HttpError::Kind::tooManyPending);
}

TEST_F(SlowServers, AreGivenUpBelowTheLeastRate) {
    const auto server = makeServer();
    const auto client = makeCurlHttpClient({.rateWindow = 1s});
    const HttpResult result = performBlocking(*client, {.url = server->url("/slow")});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().description,
              "Operation too slow. Less than 1024 bytes/sec transferred the last 1 seconds");
}

TEST_F(SlowServers, ANameThatIsLookedUpSlowlyDelaysNobodyElse) {
    const auto healthy = makeServer();
    const auto client = makeCurlHttpClient({.maxReportTime = 20ms});
    const std::future<HttpResult> unknown = startIn(*client, {.url = "http://hangs.example/"});
    EXPECT_TRUE(lookupBegun.try_acquire_for(kPatience));
    EXPECT_EQ(unknown.wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(isAnswered(*client, {.url = healthy->url("/fast"), .timeout = kPatience}));
    lookupMayEnd.release();
}

}  // namespace
}  // namespace telvora
