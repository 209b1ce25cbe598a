// SPDX-License-Identifier: Apache-2.0
#include "backends/upload_backend.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/backend_rig.h"

namespace telvora::test {
namespace {

struct UploadRig : BackendRig {
    UploadRig() {
        const auto peer = std::make_shared<Peer>();
        peer->uid = getuid();
        files = std::make_shared<ClientFiles>(peer, directories, admission);
    }
    bool upload(const std::filesystem::path& file, const char* url = "https://up.example/in") {
        bool sent = false;
        UploadBackend::make(services, kTelvoraBackendUploadServer, profileOf({{"post_url", url}}),
                            shared(BackendIdentity()))
            ->uploadFileAtPath({file, "", files, [](const auto& work) { work(); }},
                               [&sent](bool uploaded) { sent = uploaded; });
        return sent;
    }

    UploadAdmission admission;
    const std::vector<std::filesystem::path> directories{directory.path()};
    std::shared_ptr<ClientFiles> files;
};

TEST(UploadBackend, NeedsAPostURL) {
    const LogCapture log;
    const BackendRig rig;
    for (const BackendProfile& profile : {BackendProfile(), std::make_shared<const PropertyList>("text"),
                                          profileOf({}), profileOf({{"post_url", 7}})})
        EXPECT_FALSE(UploadBackend::make(rig.services, "uploadServer", profile, shared(identityOf(7))));
    EXPECT_EQ(log.count("<3>UploadBackend(initWithName): can't resolve upload post URL."), 4U);
}

TEST(UploadBackend, JudgesTheAnswerByItsTextAlone) {
    const std::string answered =
        "<7>UploadBackend(uploadFileAtPath): sending to |https://up.example/in|, Json output: ";
    const std::tuple<HttpResult, bool, std::string> cases[] = {
        {FakeHttpClient::response(500, "no success"), true, answered + "no success"},
        {FakeHttpClient::response(200, "Success"), false, answered + "Success"},
        {FakeHttpClient::response(200, ""), false, "<3>UploadBackend(uploadFileAtPath): post (null)"},
        {FakeHttpClient::response(200, "\xc0"), true, answered + "(null)"},
        {FakeHttpClient::failure("no route"), false, "<3>UploadBackend(uploadFileAtPath): post no route"}};
    for (const auto& [answer, removed, line] : cases) {
        const LogCapture log;
        UploadRig rig;
        rig.http.setHandler([&result = answer](const HttpRequest&) { return result; });
        const auto file = rig.directory.write("file", "content");
        EXPECT_TRUE(rig.upload(file));
        EXPECT_EQ(exists(file), !removed);
        EXPECT_TRUE(log.contains(line)) << line;
    }
}

TEST(UploadBackend, SendsNoRequestThatIsInvalidOrRefused) {
    const LogCapture log;
    UploadRig rig;
    const auto file = rig.directory.write("file", "content");
    for (const char* url : {"", "up.example", "ftp://up.example", "https://", "https://up.example/a b",
                            "https://up.example:99999/", "http://[::1/"}) {
        EXPECT_FALSE(rig.upload(file, url)) << url;
    }
    EXPECT_EQ(log.count("<3>UploadBackend(uploadFileAtPath): Unable to create URL request"), 7U);
    EXPECT_EQ(rig.http.requestCount(), 0U);
    using Kind = HttpError::Kind;
    for (const auto& [kind, sent] : {std::pair{Kind::notSent, false},
                                     {Kind::tooManyPending, false},
                                     {Kind::noConnection, true},
                                     {Kind::noAnswer, true}}) {
        rig.http.setHandler([fault = kind](const HttpRequest&) -> HttpResult {
            return tl::unexpected(HttpError{1, "refused", fault});
        });
        EXPECT_EQ(rig.upload(file), sent);
    }
    EXPECT_EQ(log.count("<3>UploadBackend(uploadFileAtPath): post refused"), 4U);
    rig.admission.close();
    EXPECT_FALSE(rig.upload(file));
    EXPECT_TRUE(log.contains("<3>UploadBackend(uploadFileAtPath): Too many uploads are under way"));
    EXPECT_TRUE(exists(file));
}

TEST(UploadBackend, EncodesBytesThatAQueryMustNotContain) {
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
