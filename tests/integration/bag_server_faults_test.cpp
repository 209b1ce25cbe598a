// SPDX-License-Identifier: Apache-2.0
//
// Bag servers that fail or lie: the clients concerned get no bag, a log line has the reason, and other
// clients are not affected.
#include <gmock/gmock.h>

#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::BagFault;

class BagServerFaults : public DaemonFixture {
  protected:
    void SetUp() override {
        DaemonFixture::SetUp();
        laboratory().setBag("dravik", openBag());
        laboratory().setBag("orbel", openBag());
        startDaemon();
        healthy_ = open({.clientType = 5});
    }

    std::unique_ptr<BlockingSession> healthy_;  // with a good bag
};

TEST_F(BagServerFaults, GiveNoBagAndSayWhy) {
    const std::string fetch = "fetchStorebagWithName: ";
    const std::string resolve = "<6>" + fetch + "Error resolving with lookup server https://";
    const std::string unparsed = "<3>" + fetch + "propertyListWithData error ";
    const std::string unsignedDocument = "<3>" + fetch + "Signature is missing";
    const std::string unverified = "<3>" + fetch + "Signature can not be verified, ";
    const struct {
        BagFault fault;
        int64_t clientType;
        const char* bag;
        std::string line;  // the beginning
    } cases[] = {
        {BagFault::noAnswer, 6, "vantor", resolve},
        {BagFault::truncated, 8, "dravik", resolve},
        {BagFault::notModified, 9, "fenlow", unsignedDocument},
        {BagFault::notFound, 10, "pellam", unparsed},
        {BagFault::notAPropertyList, 12, "kestova", unparsed},
        {BagFault::unsignedBag, 16, "tamsel", unsignedDocument},
        {BagFault::foreignKey, 17, "corvane", unverified},
        {BagFault::flippedBit, 18, "lindqvar", unverified},
        {BagFault::innerNotAPropertyList, 7, "quillet", "<3>fetchStorebagForEnvironmentAndClientType: "},
    };
    for (const auto& [fault, clientType, bag, line] : cases) {
        SCOPED_TRACE(bag);
        laboratory().setBag(bag, openBag());
        bags().setFault(bag, fault);
        const size_t from = daemon().logLineCount();
        BlockingSession session(daemon().socketPath(), {.clientType = clientType});
        EXPECT_EQ(session.startConfig(), std::nullopt);
        expectLineBeginning(line, from);
        expectLine("<3>fetchAndCacheStorebag: Unable to fetch storebag for client type " +
                       std::to_string(clientType),
                   from);
        // A session without a bag goes on, without backends.
        EXPECT_EQ(session.send(1, 1), std::nullopt);
        expectLine("<7>sendMessageWithDictionary: No backends available to send message", from);
        expectReport(*healthy_);
    }
}

TEST_F(BagServerFaults, HoldUpNobodyWhoHasABag) {
    bags().setFault("dravik", BagFault::hold);
    BlockingSession session(daemon().socketPath());
    const auto states = session.beginStartConfig();
    ASSERT_TRUE(bags().waitForRequests(2, kPatience));
    expectReport(*healthy_);
    bags().releaseHeld();
    EXPECT_TRUE(states());
}

}  // namespace
}  // namespace telvora::test
