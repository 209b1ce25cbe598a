// SPDX-License-Identifier: Apache-2.0
//
// Metrics adaptors in the real daemon, within its sandbox.
#include <gmock/gmock.h>

#include "telvora-lab/bags.h"
#include "tests/support/blocking_session.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::kPatience;
using testing::ElementsAre;
using testing::Optional;

class VodexAdaptor : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        Dictionary bag = lab::openBag();
        Dictionary section = *bag.dictionary("release");
        section.set("vodex", Dictionary());
        bag.set("release", std::move(section));
        laboratory().setBag("quillet", bag);  // client type 7
        laboratory().setBag("dravik", bag);   // client type 8, which has no adaptor
    }
    // With the adaptor in a place that the sandbox would not let the daemon read.
    void start(const std::string& adaptor) {
        const auto path = directory().path() / "adaptor.so";
        copy_file(adaptor, path, std::filesystem::copy_options::overwrite_existing);
        startDaemon([&](lab::DaemonOptions& options) {
            options.defaults = {{"vodexAdaptorPath", path.string()}, {"shutdownMilliseconds", 100}};
        });
    }
    std::unique_ptr<BlockingSession> open(int64_t sessionID, int64_t clientType = 7) {
        SessionSettings settings;
        settings.sessionID = sessionID;
        settings.clientType = clientType;
        return std::make_unique<BlockingSession>(daemon().socketPath(), settings);
    }
};

TEST_F(VodexAdaptor, GetsEveryReport) {
    start(TELVORA_EXAMPLE_ADAPTOR);
    auto session = open(1);
    EXPECT_THAT(session->startConfig(), Optional(ElementsAre("httpPost", "vodex")));
    expectLineBeginning("vodex-adaptor: report 1: method 0 respCode 0 { ");
    session->send(5, 6, {{"codec", "opus"}, {"frames", 40}, {"list", Array{1, 2}}});
    expectLine(
        "vodex-adaptor: report 2: method 5 respCode 6 { codec: string of 4 bytes, frames: integer, "
        "list: array of 2 }");
    session->send(65535, 65535, {});
    expectLine("vodex-adaptor: report 3: method 65535 respCode 65535 { }");
    session.reset();
    expectLine("vodex-adaptor: 4 reports");

    // The bag that stands in for one that can't be had names this backend alone.
    stopDaemon();
    bags().setFault("quillet", lab::BagFault::noAnswer);
    start(TELVORA_EXAMPLE_ADAPTOR);
    session = open(2);
    EXPECT_THAT(session->startConfig(), Optional(ElementsAre("vodex")));
    expectLineBeginning("vodex-adaptor: report 1: method 0 respCode 0 { ");
}

TEST_F(VodexAdaptor, ThatThrowsCostsNothingElse) {
    start(TELVORA_FAULTY_ADAPTORS "/sendThrows.so");
    const auto session = open(1);
    session->startConfig();
    session->send(5, 6, {});
    expectLine("<3>VodexBackend(sendMessage): the Vodex adaptor threw an exception");
    EXPECT_EQ(session->flush().second, std::nullopt);
    EXPECT_TRUE(reports().waitForEvents(2, kPatience));
}

TEST_F(VodexAdaptor, ThatHangsHoldsUpNeitherOthersNorTheEnd) {
    start(TELVORA_FAULTY_ADAPTORS "/sendHangs.so");
    std::vector<std::unique_ptr<BlockingSession>> hanging;
    for (int64_t i = 0; i < 5; ++i) {  // more than the daemon has runners
        const size_t from = daemon().logLineCount();
        hanging.push_back(open(i));
        hanging.back()->beginStartConfig();
        expectLine("sendHangs", from);
    }
    const auto other = open(9, 8);
    EXPECT_THAT(other->startConfig(), Optional(ElementsAre("httpPost")));
    other->send(5, 6, {});
    EXPECT_EQ(other->flush().second, std::nullopt);
    stopDaemon();
}

}  // namespace
}  // namespace telvora::test
