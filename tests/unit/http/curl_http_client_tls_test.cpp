// SPDX-License-Identifier: Apache-2.0
#define CPPHTTPLIB_OPENSSL_SUPPORT
#include <gtest/gtest.h>
#include <httplib.h>

#include <thread>

#include "http/http_client.h"
#include "tests/support/environment_variable.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

constexpr int kCertificateRefused = 60;

class CurlHttpClientTls : public testing::Test {
  protected:
    // A self-signed certificate, which is its own authority, and its key, in NAME.crt and NAME.key.
    void makeCertificate(const std::string& name, const std::string& host) const {
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
            " -subj /CN=test -addext subjectAltName=" +
            host + " -keyout " + file(name + ".key") + " -out " + file(name + ".crt") + " 2>/dev/null";
        ASSERT_EQ(std::system(command.c_str()), 0);
    }
    std::string file(const std::string& name) const { return directory_.path() / name; }

    // The result for a client that trusts `caFile` from a server with that certificate.
    HttpResult get(const std::string& certificate, const std::string& caFile) const {
        httplib::SSLServer server(file(certificate + ".crt").c_str(), file(certificate + ".key").c_str());
        server.Get("/a", [](const auto&, auto& response) { response.set_content("b", "text/plain"); });
        const int port = server.bind_to_any_port("127.0.0.1");
        std::thread thread([&] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::yield();
        const HttpResult result =
            performBlocking(*makeCurlHttpClient({.caFile = caFile}),
                            {.url = "https://127.0.0.1:" + std::to_string(port) + "/a"});
        server.stop();
        thread.join();
        return result;
    }

    test::TemporaryDirectory directory_;
};

TEST_F(CurlHttpClientTls, TrustsTheGivenAuthorityAndNoOther) {
    makeCertificate("right", "IP:127.0.0.1");
    makeCertificate("other", "IP:127.0.0.1");
    makeCertificate("elsewhere", "DNS:elsewhere.example");
    const HttpResult trusted = get("right", file("right.crt"));
    ASSERT_TRUE(trusted) << trusted.error().description;
    EXPECT_EQ(trusted->body, "b");
    for (const HttpResult& refused :
         {get("right", file("other.crt")), get("right", ""), get("elsewhere", file("elsewhere.crt"))}) {
        ASSERT_FALSE(refused);
        EXPECT_EQ(refused.error().code, kCertificateRefused) << refused.error().description;
    }
    EXPECT_FALSE(get("right", file("absent.crt")));

    const test::EnvironmentVariable authority("SSL_CERT_FILE", file("right.crt").c_str());
    EXPECT_TRUE(get("right", ""));
}

}  // namespace
}  // namespace telvora
