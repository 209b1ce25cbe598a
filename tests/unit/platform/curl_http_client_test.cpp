// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <mutex>
#include <stdexcept>

#include "platform/http_client.h"
#include "tests/support/scripted_server.h"

namespace telvora {
namespace {

using namespace std::chrono_literals;
using test::ScriptedServer;
using Connection = ScriptedServer::Connection;

// Numbers of the transfer library that callers may see in a log.
constexpr int kRefused = 7, kTruncated = 18, kTimedOut = 28, kBadArgument = 43, kEmptyReply = 52,
              kTooLong = 63, kTooManyPending = 89;

std::future<HttpResult> startIn(HttpClient& client, HttpRequest request) {
    auto promise = std::make_shared<std::promise<HttpResult>>();
    std::future<HttpResult> future = promise->get_future();
    client.start(std::move(request), [promise](HttpResult result) { promise->set_value(std::move(result)); });
    return future;
}

int errorCode(const HttpResult& result) {
    return result ? 0 : result.error().code;
}

// Answers every request of a connection with the same text.
ScriptedServer::Script answering(std::string answer) {
    return [answer = std::move(answer)](Connection& connection) {
        while (!connection.readRequest().empty())
            connection.send(answer);
    };
}

// Reads the first request and never answers.
void hang(Connection& connection) {
    connection.waitForClose();
}

const std::string kOk = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

TEST(CurlHttpClient, SendsExactlyWhatTheCallerGave) {
    const std::string bigBody(3 << 20, 'x');
    const struct {
        HttpRequest request;
        std::string line, rest;
    } cases[] = {
        {{}, "GET /p?q=1 HTTP/1.1\r\n", "\r\n"},
        {{.headers = {{"X-B", "2"}, {"If-Modified-Since", "then"}, {"X-Empty", ""}}},
         "GET /p?q=1 HTTP/1.1\r\n",
         "X-B: 2\r\nIf-Modified-Since: then\r\nX-Empty:\r\n\r\n"},
        {{.method = "POST",
          .headers = {{"Content-Type", "application/json"}, {"Content-Length", "9"}},
          .body = "{}"},
         "POST /p?q=1 HTTP/1.1\r\n",
         "Content-Type: application/json\r\nContent-Length: 2\r\n\r\n{}"},
        {{.method = "POST"}, "POST /p?q=1 HTTP/1.1\r\n", "Content-Length: 0\r\n\r\n"},
        {{.method = "POST", .body = bigBody},
         "POST /p?q=1 HTTP/1.1\r\n",
         "Content-Length: 3145728\r\n\r\n" + bigBody},
        {{.method = "PUT", .body = std::string("a\0b", 3)},
         "PUT /p?q=1 HTTP/1.1\r\n",
         std::string("Content-Length: 3\r\n\r\na\0b", 24)},
        {{.method = "DELETE"}, "DELETE /p?q=1 HTTP/1.1\r\n", "\r\n"},
        {{}, "GET /p?q=1 HTTP/1.1\r\n", "\r\n"},  // nothing is left over from what the handle carried before
    };
    std::mutex mutex;
    std::string last;
    ScriptedServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty();) {
            const std::lock_guard lock(mutex);
            last = std::move(request);
            connection.send(kOk);
        }
    });
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
    const auto client = makeCurlHttpClient();
    for (const auto& each : cases) {
        HttpRequest request = each.request;
        request.url = server.url("/p?q=1");
        const HttpResult result = performBlocking(*client, request);
        ASSERT_TRUE(result) << result.error().description;
        const std::lock_guard lock(mutex);
        EXPECT_TRUE(last == each.line + host + each.rest) << last.substr(0, 400);
    }
    EXPECT_EQ(server.connections(), 1u);
}

TEST(CurlHttpClient, ReadsTheAnswer) {
    const struct {
        const char* answer;
        int status;
        const char* body;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nX-A: 1\r\nx-a:  2\r\nContent-Length: 3\r\n\r\nabc", 200, "abc"},
        {"HTTP/1.1 100 Continue\r\nX-A: 0\r\n\r\nHTTP/1.1 201 Created\r\nX-A: 1\r\nContent-Length: 0\r\n\r\n",
         201, ""},
        {"HTTP/1.1 200 OK\r\nX-A: 1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n",
         200, "abcd"},
        {"HTTP/1.1 304 Not Modified\r\nX-A: 1\r\n\r\n", 304, ""},
        {"HTTP/1.1 302 Found\r\nX-A: 1\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 1\r\n\r\nr", 302,
         "r"},
        {"HTTP/1.1 503 Sorry\r\nX-A:1 \r\nContent-Length: 1\r\n\r\ne", 503, "e"},
    };
    const auto client = makeCurlHttpClient();
    for (const auto& each : cases) {
        ScriptedServer server(answering(each.answer));
        for (const bool keep : {true, false}) {
            const HttpResult result =
                performBlocking(*client, {.url = server.url(), .keepResponseBody = keep});
            ASSERT_TRUE(result) << each.answer << result.error().description;
            EXPECT_EQ(result->status, each.status) << each.answer;
            EXPECT_EQ(result->body, keep ? each.body : "") << each.answer;
            EXPECT_EQ(result->header("x-A"), "1") << each.answer;
            EXPECT_EQ(result->header("X-None"), std::nullopt);
        }
    }
}

TEST(CurlHttpClient, AnIncompleteOrOversizedAnswerIsAnError) {
    const struct {
        const char* what;
        std::string answer;
        int code;
    } cases[] = {
        {"truncated body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc", kTruncated},
        {"chunk cut off", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n64\r\nabc", kTruncated},
        {"no last chunk", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n", kTruncated},
        {"closed at once", "", kEmptyReply},
        {"not HTTP", "SSH-2.0-x\r\n\r\n", 1},
        {"announced too long", "HTTP/1.1 200 OK\r\nContent-Length: 1001\r\n\r\nabc", kTooLong},
        {"too long", "HTTP/1.1 200 OK\r\n\r\n" + std::string(1001, 'x'), kTooLong},
        {"endless headers",
         "HTTP/1.1 200 OK\r\n" +
             [] {
                 std::string headers;
                 for (int i = 0; i < 20000; ++i)
                     headers += "X-Header-Number: " + std::to_string(i) + "\r\n";
                 return headers;
             }() +
             "\r\n",
         kTooLong},
    };
    const auto client = makeCurlHttpClient();
    for (const auto& each : cases) {
        ScriptedServer server([&](Connection& connection) {
            connection.readRequest();
            connection.send(each.answer);
        });
        for (const bool keep : {true, false}) {
            const HttpResult result = performBlocking(
                *client, {.url = server.url(), .maxResponseBytes = 1000, .keepResponseBody = keep});
            EXPECT_EQ(errorCode(result), each.code) << each.what;
            EXPECT_FALSE(!result && result.error().description.empty()) << each.what;
        }
    }
    ScriptedServer exact(
        answering("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(1000, 'x')));
    EXPECT_TRUE(performBlocking(*client, {.url = exact.url(), .maxResponseBytes = 1000}));
}

TEST(CurlHttpClient, SendsAgainWhatAKeptConnectionWasClosedUnder) {
    std::atomic<int> connections = 0;
    ScriptedServer server([&](Connection& connection) {
        if (connections++ > 0) return answering(kOk)(connection);
        connection.readRequest();
        connection.send(kOk);
        connection.readSome();  // of the second request, most of which is yet to come
    });
    const auto client = makeCurlHttpClient();
    EXPECT_EQ(errorCode(startIn(*client, {.url = server.url()}).get()), 0);
    const std::string body(8 << 20, 'x');
    EXPECT_EQ(errorCode(startIn(*client, {.method = "POST", .url = server.url(), .body = body}).get()), 0);
    EXPECT_EQ(connections, 2);
}

TEST(CurlHttpClient, ReportsARefusedConnectionAndARequestThatCanNotBeSent) {
    std::string url;
    {
        const ScriptedServer gone(hang);
        url = gone.url();
    }
    const auto client = makeCurlHttpClient();
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = url})), kRefused);
    bool ranAtOnce = false;
    client->start({.url = url, .headers = {{"X", "a\nb"}}}, [&](const HttpResult& result) {
        EXPECT_EQ(errorCode(result), kBadArgument);
        ranAtOnce = true;
    });
    EXPECT_TRUE(ranAtOnce);
}

TEST(CurlHttpClient, TimesOutUnderWayAndInLine) {
    ScriptedServer server(hang);
    auto client = makeCurlHttpClient({.maxConnectionsPerHost = 1});
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = server.url(), .timeout = 50ms})), kTimedOut);
    std::future<HttpResult> patient = startIn(*client, {.url = server.url()});
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = server.url(), .timeout = 50ms})), kTimedOut);
    EXPECT_EQ(patient.wait_for(0s), std::future_status::timeout);
    client.reset();
    EXPECT_NE(errorCode(patient.get()), 0);
}

TEST(CurlHttpClient, AServerThatHangsDelaysNobodyElse) {
    ScriptedServer hanging(hang);
    ScriptedServer healthy(answering(kOk));
    auto client =
        makeCurlHttpClient({.maxConnections = 4, .maxConnectionsPerHost = 2, .maxPendingRequests = 40});
    std::vector<std::future<HttpResult>> stuck;
    stuck.reserve(20);
    for (int i = 0; i < 20; ++i)
        stuck.push_back(startIn(*client, {.url = hanging.url()}));
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = hanging.url()})), kTooManyPending);
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(performBlocking(*client, {.url = healthy.url()}));
    client.reset();
    for (auto& each : stuck)
        EXPECT_NE(errorCode(each.get()), 0);
    EXPECT_LE(hanging.connections(), 2u);
}

TEST(CurlHttpClient, BoundsPendingBytes) {
    ScriptedServer server(hang);
    const auto client = makeCurlHttpClient({.maxPendingBytes = 100'000});
    const auto post = [&](size_t bytes) {
        return startIn(*client, {.method = "POST", .url = server.url(), .body = std::string(bytes, 'x')});
    };
    std::future<HttpResult> tooBig = post(100'001);
    ASSERT_EQ(tooBig.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(errorCode(tooBig.get()), kTooManyPending);
    std::future<HttpResult> first = post(40'000);
    std::future<HttpResult> beyondShare = post(10'000);
    ASSERT_EQ(beyondShare.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(errorCode(beyondShare.get()), kTooManyPending);
    EXPECT_EQ(first.wait_for(0s), std::future_status::timeout);
}

TEST(CurlHttpClient, CarriesManyRequestsFromManyThreads) {
    constexpr int kThreads = 4, kEach = 500, kAll = kThreads * kEach;
    std::atomic<int> served = 0;
    ScriptedServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty(); ++served) {
            const std::string body = request.substr(request.find("\r\n\r\n") + 4);
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                            body);
        }
    });
    const auto client = makeCurlHttpClient();
    std::atomic<int> right = 0;
    std::latch done(kAll);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string body = std::to_string(t * kEach + i);
                client->start({.method = "POST", .url = server.url(), .body = body},
                              [&, body](const HttpResult& result) {
                                  if (result && result->body == body) ++right;
                                  done.count_down();
                              });
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    done.wait();
    EXPECT_EQ(right, kAll);
    EXPECT_EQ(served, kAll);
    EXPECT_LE(server.connections(), 6u);
}

TEST(CurlHttpClient, EndsItsConnectionsWhenIdleAndStartsAgain) {
    std::promise<void> closed;
    std::atomic<bool> first = true;
    ScriptedServer server([&](Connection& connection) {
        connection.readRequest();
        connection.send(kOk);
        if (first.exchange(false)) {
            connection.waitForClose();
            closed.set_value();
        }
    });
    const auto client = makeCurlHttpClient({.idleConnectionAge = 0s});
    EXPECT_TRUE(performBlocking(*client, {.url = server.url()}));
    closed.get_future().wait();
    EXPECT_TRUE(performBlocking(*client, {.url = server.url()}));
}

TEST(CurlHttpClient, ACompletionMayThrowAndMayStartTheNextRequest) {
    ScriptedServer server(answering(kOk));
    const auto client = makeCurlHttpClient();
    std::promise<HttpResult> last;
    client->start({.url = server.url()}, [&](const HttpResult&) {
        client->start({.url = server.url()}, [&](HttpResult result) { last.set_value(std::move(result)); });
        throw std::runtime_error("thrown by a test");
    });
    EXPECT_TRUE(last.get_future().get());
}

TEST(CurlHttpClient, DestructionCompletesWhatIsLeftAndRefusesMore) {
    ScriptedServer server(hang);
    auto client = makeCurlHttpClient();
    HttpClient& raw = *client;
    int completed = 0, refused = 0;
    for (int i = 0; i < 100; ++i) {
        raw.start({.url = server.url()}, [&](const HttpResult& result) {
            completed += errorCode(result) != 0;
            raw.start({.url = server.url()},
                      [&](const HttpResult& next) { refused += errorCode(next) != 0; });
        });
    }
    client.reset();
    EXPECT_EQ(completed, 100);
    EXPECT_EQ(refused, 100);
}

TEST(PerformBlocking, ReportsAClientThatDropsTheCompletion) {
    struct Dropping : HttpClient {
        void start(HttpRequest, Completion) override {}
    } client;
    EXPECT_NE(errorCode(performBlocking(client, {})), 0);
}

}  // namespace
}  // namespace telvora
