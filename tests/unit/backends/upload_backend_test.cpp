// SPDX-License-Identifier: Apache-2.0
#include "backends/upload_backend.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/unit/backends/backend_rig.h"

namespace telvora::test {
namespace {

using lab::FakeHttpClient;

struct UploadRig : BackendRig {
    UploadRig() {
        Peer peer;
        peer.uid = getuid();
        files = std::make_unique<ClientFiles>(peer, std::vector{directory.path()}, admission);
        backend = UploadBackend::make(services, kTelvoraBackendUploadServer,
                                      profileOf({{"post_url", "https://up.example/in"}}), std::nullopt);
        backend->setSessionID(4'000'000'000);
        answer(FakeHttpClient::response(200, "a success"));
    }
    void answer(const HttpResult& result) {
        http.setHandler([result](const HttpRequest&) { return result; });
    }
    bool upload(const std::filesystem::path& file) { return backend->uploadFileAtPath(file, "", *files); }

    UploadAdmission admission;
    std::unique_ptr<ClientFiles> files;
    std::shared_ptr<UploadBackend> backend;
};

TEST(UploadBackend, NeedsAPostURL) {
    const LogCapture log;
    const BackendRig rig;
    for (const BackendProfile& profile : {BackendProfile(), std::make_shared<const PropertyList>("text"),
                                          profileOf({}), profileOf({{"post_url", 7}})}) {
        EXPECT_EQ(UploadBackend::make(rig.services, kTelvoraBackendUploadServer, profile, "phone"), nullptr);
    }
    EXPECT_EQ(log.count("<3>UploadBackend(initWithName): can't resolve upload post URL."), 4U);
    const auto backend = UploadBackend::make(rig.services, kTelvoraBackendUploadServer,
                                             profileOf({{"post_url", "u"}, {"display_url", "d"}}), "phone");
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->uploadURL(), "u");
    EXPECT_EQ(backend->displayURL(), "d");
}

TEST(UploadBackend, JudgesTheAnswerByItsTextAlone) {
    const struct {
        HttpResult answer;
        bool removed;
        const char* line;
    } cases[] = {
        {FakeHttpClient::response(500, "no success"), true, "Json output: no success"},
        {FakeHttpClient::response(200, "Success"), false, "Json output: Success"},
        {FakeHttpClient::response(200, ""), false, "Json output: "},
        {FakeHttpClient::response(200, "\xc0"), true, "Json output: (null)"},
        {FakeHttpClient::failure("the line is dead"), false, nullptr},
    };
    for (const auto& [answer, removed, line] : cases) {
        const LogCapture log;
        UploadRig rig;
        rig.answer(answer);
        const auto file = rig.directory.write("file", "content");
        EXPECT_TRUE(rig.upload(file));
        EXPECT_EQ(exists(file), !removed);
        EXPECT_TRUE(log.contains(line != nullptr
                                     ? std::string("<7>UploadBackend(uploadFileAtPath): sending to "
                                                   "|https://up.example/in|, ") +
                                           line
                                     : "<3>UploadBackend(uploadFileAtPath): post the line is dead"));
    }
}

TEST(UploadBackend, SendsNothingWhereSomethingIsMissing) {
    const LogCapture log;
    UploadRig rig;
    const auto file = rig.directory.write("file", "content");
    for (const char* url : {"", "up.example", "ftp://up.example", "https://", "https://up.example/a b"}) {
        rig.backend->setUploadURL(url);
        EXPECT_FALSE(rig.upload(file)) << url;
    }
    EXPECT_EQ(log.count("<3>UploadBackend(uploadFileAtPath): Unable to create URL request"), 5U);
    rig.backend->setUploadURL(std::nullopt);
    EXPECT_FALSE(rig.upload(file));
    rig.backend->setUploadURL("https://up.example");
    rig.admission.close();
    EXPECT_FALSE(rig.upload(file));
    EXPECT_TRUE(log.contains("<3>UploadBackend(uploadFileAtPath): Too many uploads are under way"));
    EXPECT_EQ(rig.http.requestCount(), 0U);
    EXPECT_TRUE(exists(file));
}

TEST(UploadBackend, EncodesWhatAQueryCannotHold) {
    const std::pair<const char*, const char*> cases[] = {
        {"azAZ09-._~!$&'()*+,;=:@/?", "azAZ09-._~!$&'()*+,;=:@/?"},
        {" \"#%<>[\\]^`{|}\n\x7f", "%20%22%23%25%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%0A%7F"},
        {"ü€", "%C3%BC%E2%82%AC"},
    };
    for (const auto& [text, encoded] : cases)
        EXPECT_EQ(percentEncodedForQuery(text), encoded);
}

}  // namespace
}  // namespace telvora::test
