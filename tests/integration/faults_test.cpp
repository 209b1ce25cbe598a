// SPDX-License-Identifier: Apache-2.0
//
// Bag servers, reporting servers and file systems that fail or lie. The clients concerned learn it, a log
// line has the reason, and other clients are not affected.
#include <sys/mount.h>

#include <fstream>

#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::BagFault;
using lab::ReportingFault;

using BagServerFaults = DaemonFixture;

TEST_F(BagServerFaults, GiveNoBagSayWhyAndHoldUpNobodyWhoHasABag) {
    constexpr char resolve[] = "<6>fetchStorebagWithName: Error resolving with lookup server https://";
    constexpr char unparsed[] = "<3>fetchStorebagWithName: propertyListWithData error ";
    constexpr char unsignedDocument[] = "<3>fetchStorebagWithName: Signature is missing";
    constexpr char unverified[] = "<3>fetchStorebagWithName: Signature can not be verified, ";
    const struct {
        BagFault fault;
        int64_t clientType;
        const char *bag, *line;  // the beginning
    } cases[] = {
        {BagFault::noAnswer, 6, "vantor", resolve},
        {BagFault::notModified, 9, "fenlow", unsignedDocument},
        {BagFault::notFound, 10, "pellam", unparsed},
        {BagFault::notAPropertyList, 12, "kestova", unparsed},
        {BagFault::unsignedBag, 16, "tamsel", unsignedDocument},
        {BagFault::foreignKey, 17, "corvane", unverified},
        {BagFault::flippedBit, 18, "lindqvar", unverified},
        {BagFault::innerNotAPropertyList, 7, "quillet", "<3>fetchStorebagForEnvironmentAndClientType: "},
    };
    laboratory().setBag("orbel", openBag());
    startDaemon();
    const Session healthy = open({.clientType = 5});
    bags().setFault("dravik", BagFault::hold);
    BlockingSession waiting(daemon().socketPath());
    const auto states = waiting.beginStartConfig();
    ASSERT_TRUE(bags().waitForRequests(2, kPatience));
    expectReport(*healthy);
    bags().releaseHeld();
    EXPECT_TRUE(states());

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
        expectReport(*healthy);
    }
}

using ReportingServerFaults = DaemonFixture;

TEST_F(ReportingServerFaults, HoldUpOnlyTheClientThatFlushesAndAreToldAtOnce) {
    lab::ReportingServer well(laboratory().pki());
    const Dictionary entry = openClientEntry({{"post_url", well.eventsURL()}});
    bags().setBag("fenlow", bagWithClients({entry}));
    laboratory().setBag("dravik", openBag({{"httpPost2", Dictionary{{"clients", Array{entry}}}}}));
    startDaemon();
    const Session neighbour = open({.clientType = 9}), session = open({}, {"httpPost", "httpPost2"});
    reports().setFault(ReportingFault::hold);
    session->send(4, 1);
    const auto flushed = session->beginFlush();
    ASSERT_TRUE(reports().waitForMessages(1, kPatience) && well.waitForMessages(1, kPatience));
    EXPECT_EQ(session->send(4, 2), std::nullopt) << "other calls of the client are answered meanwhile";
    expectReport(*neighbour, well);
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    EXPECT_EQ(flushed().error, std::nullopt);

    // One backend fails while another still waits.
    well.setFault(ReportingFault::noAnswer);
    reports().setFault(ReportingFault::hold);
    EXPECT_TRUE(session->flush().error);
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    EXPECT_EQ(session->flush().error, makeTelvoraError("Nothing to flush", -1));
    stopDaemon();
}

using StorageFaults = DaemonFixture;

TEST_F(StorageFaults, AFullDiskUnderTheMessageLogCostsNoReport) {
    const auto logs = directory().path() / "logs";
    create_directory(logs);
    if (mount("none", logs.c_str(), "tmpfs", 0, "size=16k,mode=0755") != 0)
        GTEST_SKIP() << "mounting a file system takes privileges that this process lacks";
    const std::shared_ptr<void> unmount(nullptr, [&](void*) { umount2(logs.c_str(), MNT_DETACH); });
    startDaemon();
    const Session session = open();
    // A realtime report is posted and logged at once.
    const auto expectReports = [&](size_t count) {
        const size_t before = reports().eventCount();
        for (size_t i = 0; i < count; ++i)
            EXPECT_TRUE(session->send(9, 1, {{"k", "v"}}, 1)) << "a logged answer";
        EXPECT_TRUE(waitForEvents(before + count));
    };
    expectReports(1);
    expectLineBeginning("<6>writeToLogFile: Saved log message to ");

    std::ofstream(logs / "filler") << std::string(size_t{1} << 20, 'x');
    const size_t from = daemon().logLineCount();
    // The file's last page has room for a few more records. The record that fails to be written removes its
    // file.
    expectReports(20);
    expectLineBeginning("<4>writeToLogFile: Could not write to ", from);
    expectLineBeginning("<6>writeToLogFile: Deleted expired telvorad log file ", from);
}

}  // namespace
}  // namespace telvora::test
