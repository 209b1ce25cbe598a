// SPDX-License-Identifier: Apache-2.0
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <latch>
#include <thread>

#include "platform/http_client.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

constexpr int kCertificateRefused = 60;

// A self-signed certificate, which is its own authority, and its key, in NAME.crt and NAME.key.
void makeCertificate(const std::filesystem::path& directory, const std::string& name,
                     const std::string& host) {
    const std::string base = (directory / name).string();
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
        " -subj /CN=test -addext subjectAltName=" +
        host + " -keyout " + base + ".key -out " + base + ".crt 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
}

// An HTTPS server with that certificate, which answers every GET with its path.
class TlsServer {
  public:
    TlsServer(const std::filesystem::path& directory, const std::string& name)
        : server_((directory / (name + ".crt")).c_str(), (directory / (name + ".key")).c_str()) {
        server_.Get(".*", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(request.path, "text/plain");
        });
        server_.set_tcp_nodelay(true);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~TlsServer() {
        server_.stop();
        thread_.join();
    }
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    std::string url(const std::string& path) const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }

  private:
    httplib::SSLServer server_;
    int port_ = 0;
    std::thread thread_;
};

class CurlHttpClientTls : public testing::Test {
  protected:
    CurlHttpClientTls() {
        makeCertificate(directory.path(), "right", "IP:127.0.0.1");
        makeCertificate(directory.path(), "other", "IP:127.0.0.1");
        makeCertificate(directory.path(), "elsewhere", "DNS:elsewhere.example");
    }
    std::string file(const std::string& name) const { return (directory.path() / name).string(); }

    test::TemporaryDirectory directory;
};

TEST_F(CurlHttpClientTls, TrustsTheGivenAuthorityAndNoOther) {
    const TlsServer right(directory.path(), "right");
    const TlsServer elsewhere(directory.path(), "elsewhere");
    const auto get = [&](const TlsServer& server, const std::string& caFile) {
        const auto client = makeCurlHttpClient({.caFile = caFile});
        return performBlocking(*client, {.url = server.url("/a")});
    };
    const HttpResult trusted = get(right, file("right.crt"));
    ASSERT_TRUE(trusted) << trusted.error().description;
    EXPECT_EQ(trusted->body, "/a");
    for (const HttpResult& refused :
         {get(right, file("other.crt")), get(right, ""), get(elsewhere, file("elsewhere.crt"))}) {
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, kCertificateRefused) << refused.error().description;
    }
    EXPECT_FALSE(get(right, file("absent.crt")));

    setenv("SSL_CERT_FILE", file("right.crt").c_str(), 1);
    EXPECT_TRUE(get(right, ""));
    unsetenv("SSL_CERT_FILE");
}

TEST_F(CurlHttpClientTls, CarriesRequestsInParallel) {
    constexpr int kRequests = 200;
    const TlsServer server(directory.path(), "right");
    const auto client = makeCurlHttpClient({.caFile = file("right.crt")});
    std::latch done(kRequests);
    std::atomic<int> right = 0;
    for (int i = 0; i < kRequests; ++i) {
        const std::string path = "/" + std::to_string(i);
        client->start({.url = server.url(path)}, [&, path](const HttpResult& result) {
            if (result && result->body == path) ++right;
            done.count_down();
        });
    }
    done.wait();
    EXPECT_EQ(right, kRequests);
}

}  // namespace
}  // namespace telvora
