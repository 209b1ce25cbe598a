// SPDX-License-Identifier: Apache-2.0
#include "http/http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <mutex>
#include <stdexcept>

#include "http/http_request_rules.h"
#include "telvora-lab/https_server.h"
#include "tests/support/child_process.h"
#include "tests/support/environment_variable.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temporary_directory.h"
#include "util/letter_case.h"

namespace telvora {
namespace {

using namespace std::chrono_literals;
using test::ScriptedServer;
using Connection = ScriptedServer::Connection;

// Numbers of the transfer library that callers may see in a log.
constexpr int kUnsupported = 1, kTruncated = 18, kTimedOut = 28, kBadArgument = 43, kEmptyReply = 52,
              kCertificateRefused = 60, kTooLong = 63, kTooManyPending = 89;

std::future<HttpResult> startIn(HttpClient& client, HttpRequest request) {
    auto promise = std::make_shared<std::promise<HttpResult>>();
    client.start(std::move(request), [promise](HttpResult result) { promise->set_value(std::move(result)); });
    return promise->get_future();
}

int errorCode(const HttpResult& result) {
    return result ? 0 : result.error().code;
}

int errorAtOnce(std::future<HttpResult> result) {
    return result.wait_for(0s) == std::future_status::ready ? errorCode(result.get()) : -1;
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
    // The requests, and their rests after the line and the host.
    const std::pair<HttpRequest, std::string> cases[] = {
        {{.headers = {{"X-B", "2"}, {"If-Modified-Since", "then"}, {"X-Empty", ""}}},
         "X-B: 2\r\nIf-Modified-Since: then\r\nX-Empty:\r\n\r\n"},
        {{.method = "POST", .headers = {{"Content-Type", "a/b"}, {"Content-Length", "9"}}, .body = "{}"},
         "Content-Type: a/b\r\nContent-Length: 2\r\n\r\n{}"},
        {{.method = "POST"}, "Content-Length: 0\r\n\r\n"},
        {{.method = "POST", .body = bigBody}, "Content-Length: 3145728\r\n\r\n" + bigBody},
        {{.method = "PUT", .body = std::string("a\0b", 3)}, std::string("Content-Length: 3\r\n\r\na\0b", 24)},
        {{.method = "DELETE"}, "\r\n"},
        {{}, "\r\n"},  // no rest of the previous exchange of the handle
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
    const std::string middle =
        " /p?q=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
    const auto client = makeCurlHttpClient();
    for (const auto& [given, rest] : cases) {
        HttpRequest request = given;
        request.url = server.url("/p?q=1");
        ASSERT_EQ(errorCode(performBlocking(*client, request)), 0);
        const std::lock_guard lock(mutex);
        EXPECT_TRUE(last == request.method + middle + rest) << last.substr(0, 400);
    }
    EXPECT_EQ(server.connections(), 1u);
}

TEST(CurlHttpClient, TakesWholeAnswersAndNoOthers) {
    const std::string ok = "HTTP/1.1 200 OK\r\nX-A: 1\r\n",
                      chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
    const std::string most(1000, 'x');
    std::string endlessHeaders = ok;
    for (int i = 0; i < 20000; ++i)
        endlessHeaders += "X-Header-Number: " + std::to_string(i) + "\r\n";
    // The answer, and its status and body, or the error.
    const std::tuple<std::string, int, std::string> cases[] = {
        {ok + "x-a:  2\r\nContent-Length: 3\r\n\r\nabc", 200, "abc"},
        {ok + "Content-Length: 1000\r\n\r\n" + most, 200, most},
        {"HTTP/1.1 100 Continue\r\nX-A: 0\r\n\r\nHTTP/1.1 201 Created\r\nX-A: 1\r\nContent-Length: 0\r\n\r\n",
         201, ""},
        {chunked + "3\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", 200, "abcd"},
        {"HTTP/1.1 304 Not Modified\r\nX-A: 1\r\n\r\n", 304, ""},
        {"HTTP/1.1 302 Found\r\nX-A: 1\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 1\r\n\r\nr", 302,
         "r"},
        {"HTTP/1.1 503 Sorry\r\nX-A:1 \r\nContent-Length: 1\r\n\r\ne", 503, "e"},
        {ok + "Content-Length: 100\r\n\r\nabc", kTruncated, ""},
        {chunked + "64\r\nabc", kTruncated, ""},
        {chunked + "3\r\nabc\r\n", kTruncated, ""},  // no last chunk
        {"", kEmptyReply, ""},
        {"SSH-2.0-x\r\n\r\n", kUnsupported, ""},
        {ok + "Content-Length: 1001\r\n\r\nabc", kTooLong, ""},
        {ok + "\r\n" + most + "x", kTooLong, ""},
        {endlessHeaders + "\r\n", kTooLong, ""}};
    const auto client = makeCurlHttpClient();
    for (const auto& [answer, outcome, body] : cases) {
        SCOPED_TRACE(answer.substr(0, 100));
        ScriptedServer server([&text = answer, keeps = outcome >= 200](Connection& connection) {
            if (keeps) return answering(text)(connection);
            connection.readRequest();
            connection.send(text);
        });
        for (const bool keep : {true, false}) {
            const HttpResult result = performBlocking(
                *client, {.url = server.url(), .maxResponseBytes = 1000, .keepResponseBody = keep});
            ASSERT_EQ(result ? result->status : errorCode(result), outcome);
            EXPECT_FALSE(!result && result.error().description.empty());
            if (!result) continue;
            EXPECT_EQ(result->body, keep ? body : "");
            EXPECT_EQ(result->header("x-A"), "1");
            EXPECT_EQ(result->header("X-None"), std::nullopt);
        }
    }
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

TEST(CurlHttpClient, RepeatsARequestOnlyIfNoServerCanHaveActedOnIt) {
    struct Case {
        const char* method;
        bool announced;  // the end of the connection, before the request
        int arrivals;    // of both requests together
        int error;
    };
    for (const Case& one :
         {Case{"POST", false, 2, kEmptyReply}, {"GET", false, 3, 0}, {"POST", true, 2, 0}}) {
        std::atomic<int> connections = 0, arrivals = 0;
        std::latch answered(1), announced(1);
        ScriptedServer server([&](Connection& connection) {
            const bool isFirst = connections++ == 0;
            while (!connection.readRequest().empty()) {
                if (arrivals++ == 1 && isFirst) return;
                connection.send(kOk);
                if (!isFirst || !one.announced) continue;
                answered.wait();
                connection.send("x");  // in the place of TLS's farewell
                announced.count_down();
            }
        });
        const auto client = makeCurlHttpClient();
        EXPECT_TRUE(performBlocking(*client, {.url = server.url()}));
        answered.count_down();
        if (one.announced) announced.wait();
        EXPECT_EQ(errorCode(performBlocking(*client, {.method = one.method, .url = server.url()})),
                  one.error);
        EXPECT_EQ(arrivals, one.arrivals) << one.method;
    }
}

TEST(CurlHttpClient, LeavesAConnectionThatItsServerIsAboutToClose) {
    for (const auto& [header, connections] : {std::pair{"Keep-Alive: timeout=1000\r\n", 1u},
                                              {"Keep-Alive: timeout=x\r\n", 1u},
                                              {"keep-alive: max=7, timeout=0\r\n", 2u}}) {
        ScriptedServer server(
            answering("HTTP/1.1 200 OK\r\n" + std::string(header) + "Content-Length: 0\r\n\r\n"));
        const auto client = makeCurlHttpClient();
        for (int i = 0; i < 2; ++i)
            EXPECT_TRUE(performBlocking(*client, {.method = "POST", .url = server.url()}));
        EXPECT_EQ(server.connections(), connections) << header;
    }
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
    ScriptedServer hanging(hang), healthy(answering(kOk));
    auto client =
        makeCurlHttpClient({.maxConnections = 4, .maxConnectionsPerHost = 2, .maxPendingRequests = 40});
    std::vector<std::future<HttpResult>> stuck;
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

TEST(CurlHttpClient, RefusesFaultyRequestsAndBoundsPendingBytes) {
    ScriptedServer server(hang);
    const auto client = makeCurlHttpClient({.maxPendingBytes = 100'000});
    const auto post = [&](size_t bytes) {
        return startIn(*client, {.method = "POST", .url = server.url(), .body = std::string(bytes, 'x')});
    };
    EXPECT_EQ(errorAtOnce(startIn(*client, {.url = server.url(), .headers = {{"X", "a\nb"}}})), kBadArgument);
    EXPECT_EQ(errorAtOnce(post(100'001)), kTooManyPending);
    const std::future<HttpResult> first = post(40'000);
    EXPECT_EQ(errorAtOnce(post(10'000)), kTooManyPending) << "beyond the share of a host";
    EXPECT_EQ(first.wait_for(0s), std::future_status::timeout);
}

TEST(CurlHttpClient, EndsItsConnectionsWhenIdleAndStartsAgain) {
    std::latch closed(1);
    ScriptedServer server([&](Connection& connection) {
        connection.readRequest();
        connection.send(kOk);
        connection.waitForClose();
        if (!closed.try_wait()) closed.count_down();
    });
    const auto client = makeCurlHttpClient({.idleConnectionAge = 0s});
    EXPECT_TRUE(performBlocking(*client, {.url = server.url()}));
    closed.wait();
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

class CurlHttpClientTls : public testing::Test {
  protected:
    // Makes certificates that are their own authorities.
    void SetUp() override {
        for (const auto& [name, host] : {std::pair<std::string, std::string>{"right", "IP:127.0.0.1"},
                                         {"other", "IP:127.0.0.1"},
                                         {"elsewhere", "DNS:elsewhere.example"}}) {
            const std::string command =
                "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                " -subj /CN=test -addext subjectAltName=" +
                host + " -keyout " + file(name + ".key") + " -out " + file(name + ".crt") + " 2>/dev/null";
            ASSERT_EQ(std::system(command.c_str()), 0);
        }
    }
    std::string file(const std::string& name) const { return (directory_.path() / name).string(); }
    // The error of a client with this link, with a server that has that certificate.
    int errorWith(const std::string& certificate, HttpLink link) const {
        const lab::HttpsServer server(file(certificate + ".crt"), file(certificate + ".key"),
                                      [](const auto&) { return lab::ServerResponse(); });
        const auto client = makeCurlHttpClient({.link = std::move(link)});
        return errorCode(performBlocking(*client, {.url = server.origin() + "/a"}));
    }
    int errorOf(const std::string& certificate, const std::string& authority) const {
        return errorWith(certificate, {.caFile = authority});
    }

  private:
    test::TemporaryDirectory directory_;
};

TEST_F(CurlHttpClientTls, AcceptsPinnedKeysOnly) {
    test::ChildProcess openssl(
        {{"/bin/sh", "-c",
          "openssl x509 -in " + file("right.crt") +
              " -pubkey -noout | openssl pkey -pubin -outform der | openssl dgst -sha256 -binary | base64"},
         {}});
    const std::string right = "sha256//" + openssl.output().linesToTheEnd().at(0);
    const std::string other = "sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";
    const auto with = [&](const std::string& pins) {
        return errorWith("right", {.caFile = file("right.crt"), .pinnedPublicKeys = pins});
    };
    EXPECT_EQ(with(right), 0);
    EXPECT_EQ(with(other + ";" + right), 0);
    EXPECT_NE(with(other), 0);
    EXPECT_NE(with("nonsense"), 0);
}

TEST_F(CurlHttpClientTls, ShowsTheClientCertificateThatIsThereAtTheHandshake) {
    test::ChildProcess server({{"/usr/bin/openssl", "s_server", "-accept", "127.0.0.1:0", "-www", "-Verify",
                                "1", "-verify_return_error", "-CAfile", file("right.crt"), "-cert",
                                file("right.crt"), "-key", file("right.key")},
                               {}});
    ASSERT_TRUE(server.output().waitForPart("ACCEPT 127.0.0.1:"));
    std::string url;
    for (const std::string& line : server.output().lines()) {
        if (line.starts_with("ACCEPT ")) url = "https://" + line.substr(7) + "/";
    }
    const auto install = [this](const char* certificate) {
        for (const char* suffix : {".crt", ".key"})
            std::filesystem::copy_file(file(certificate + std::string(suffix)),
                                       file(std::string("mine") + suffix),
                                       std::filesystem::copy_options::overwrite_existing);
    };
    install("other");
    const auto client = makeCurlHttpClient({.link = {.caFile = file("right.crt"),
                                                     .clientCertificate = file("mine.crt"),
                                                     .clientKey = file("mine.key")}});
    EXPECT_NE(errorCode(performBlocking(*client, {.url = url})), 0);
    install("right");
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = url})), 0);
    EXPECT_NE(errorOf("right", file("absent.crt")), 0);
}

TEST(CurlHttpClient, UsesTheProxyExceptForItsExceptions) {
    std::mutex lock;
    std::vector<std::string> lines;
    const test::ScriptedServer proxy([&](test::ScriptedServer::Connection& connection) {
        const std::string request = connection.readRequest();
        const std::lock_guard hold(lock);
        lines.push_back(request.substr(0, request.find('\r')));
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    });
    const test::EnvironmentVariable everything("NO_PROXY", "*");
    const auto client =
        makeCurlHttpClient({.link = {.proxy = proxy.url(), .proxyExceptions = "127.0.0.0/8,.internal"}});
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = "http://server.example/a"})), 0);
    EXPECT_NE(errorCode(performBlocking(*client, {.url = "https://server.example/b"})), 0);  // no TLS follows
    EXPECT_EQ(errorCode(performBlocking(*client, {.url = proxy.url() + "c"})), 0);
    const std::lock_guard hold(lock);
    EXPECT_EQ(lines, (std::vector<std::string>{"GET http://server.example/a HTTP/1.1",
                                               "CONNECT server.example:443 HTTP/1.1", "GET /c HTTP/1.1"}));
}

TEST_F(CurlHttpClientTls, TrustsTheGivenAuthorityAndNoOther) {
    EXPECT_EQ(errorOf("right", file("right.crt")), 0);
    EXPECT_EQ(errorOf("right", file("other.crt")), kCertificateRefused);
    EXPECT_EQ(errorOf("right", ""), kCertificateRefused);
    EXPECT_EQ(errorOf("elsewhere", file("elsewhere.crt")), kCertificateRefused);
    EXPECT_NE(errorOf("right", file("absent.crt")), 0);

    const test::EnvironmentVariable authority("SSL_CERT_FILE", file("right.crt").c_str());
    EXPECT_EQ(errorOf("right", ""), 0);
}

TEST(HttpRequestRules, RefusesWhatWouldBreakTheWire) {
    for (const char* url :
         {"ftp://host/", "file:///etc/passwd", "host/path", "https:///path", "", "http://host/a b",
          "http://host/\nX: y", "https://host:99999/", "https://host:-1/", "https://host:1x", "https://:80/",
          "https://u:p@", "http://[::1/", "http://[::1]x/", "http://[]/", "http://[1.2.3.4]/", "http://a]b/",
          "http://a:b:80/"})
        EXPECT_TRUE(faultOfRequest({.url = url}).has_value()) << url;
    for (const char* url :
         {"http://host:/", "http://host:65535?x", "http://[::1]", "https://[fe80::1%25eth0]:443/",
          "https://u:p@host:1/", "http://127.0.0.1#f", "https://\xC3\xA4.example"})
        EXPECT_EQ(faultOfRequest({.url = url}), std::nullopt) << url;
    EXPECT_TRUE(faultOfRequest({.method = "GET /", .url = "http://host/"}).has_value());
    const std::pair<std::string, std::string> headers[] = {
        {"X", "a\r\nEvil: b"}, {"X", std::string("a\0b", 3)}, {"X: y", "a"}, {"", "a"}};
    for (const auto& [name, value] : headers)
        EXPECT_TRUE(faultOfRequest({.url = "http://host/", .headers = {{name, value}}}).has_value()) << name;
    EXPECT_EQ(
        faultOfRequest({.method = "POST", .url = "HTTPS://host:1/a?b", .headers = {{"X-Y", "z\t\xC3\xA4"}}}),
        std::nullopt);
}

TEST(HttpRequestRules, OriginIsSchemeAndAuthority) {
    EXPECT_EQ(originOfUrl("https://host:8443/a/b?c=http://d/"), "https://host:8443");
    EXPECT_EQ(originOfUrl("http://host?x"), "http://host");
    EXPECT_EQ(originOfUrl("http://[::1]:80"), "http://[::1]:80");
    EXPECT_EQ(urlForLog("https://u:p@host:1/a/b?token=t#f"), "https://host:1/a/b");
    EXPECT_EQ(urlForLog("http://host#f?x"), "http://host");
    EXPECT_EQ(urlForLog("no URL?x"), "no URL");
}

TEST(LetterCase, LowersUtf8AndLeavesOtherBytes) {
    EXPECT_EQ(lowerCase("\xC3\x84\xD0\x96 X\xFF\xC3"), "\xC3\xA4\xD0\xB6 x\xFF\xC3");
}

}  // namespace
}  // namespace telvora
