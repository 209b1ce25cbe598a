// SPDX-License-Identifier: Apache-2.0
//
// The base class of all backends, and the power log.
#include <gmock/gmock.h>

#include "backends/joulemark_backend.h"
#include "platform/power_log.h"
#include "plist/property_list_format.h"
#include "tests/support/backend_rig.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {
namespace {

TEST(SelfVersionTest, KeepsThreeComponentsOfEightBits) {
    const std::pair<const char*, const char*> cases[] = {
        {"8", "8.0"},      {"8.1.2.3", "8.1.2"}, {"8.0.5", "8.0.5"}, {"300.1", "44.1"},
        {"8..2", "8.0.2"}, {"", "0.0"},          {"x.y", "0.0"}};
    for (const auto& [text, version] : cases)
        EXPECT_EQ(SelfVersion(text).text, version) << text;
}

std::shared_ptr<JoulemarkBackend> joulemarkOf(const BackendRig& rig) {
    return JoulemarkBackend::make(rig.services, kTelvoraBackendJoulemark, nullptr, shared(identityOf(1)));
}

TEST(TelvoraBackendTest, CountsItsMessagesUpToTheWrap) {
    const BackendRig rig;
    const auto backend = joulemarkOf(rig);
    for (int i = 0; i < 65537; ++i)
        backend->sendMessage({}, {}, 1, 1, SendFlag{});
    EXPECT_EQ(backend->eventID(), 1);
}

// A field in the journal's form for any bytes.
std::string field(const std::string& name, const std::string& value) {
    const std::string length{static_cast<char>(value.size()), static_cast<char>(value.size() >> 8)};
    return name + '\n' + length + std::string(6, '\0') + value + '\n';
}

TEST(JoulemarkBackendTest, WritesOneEntryPerReport) {
    BackendRig rig;
    const std::string path = rig.directory.path() / "journal";
    const std::unique_ptr<PowerLog> powerLog = makeJournalPowerLog(path);
    rig.services.powerLog = powerLog.get();
    const auto backend = joulemarkOf(rig);
    const Dictionary payload{{"event", "old"},       {"a b\xe4", -2},
                             {"a_b_", "one\ntwo=2"}, {"yes", true},
                             {"real", 0.1},          {"data", Data{std::string("\0\xff", 2)}},
                             {"list", Array{1}},     {std::string(90, 'z'), Date{1.5}}};
    backend->sendMessage(payload, {}, 1, 1, EventID{1});  // there is no journal yet

    const UniqueFd journal = boundSocket(path, SOCK_DGRAM);
    backend->sendMessage(payload, {}, 0, 1, EventID{2});
    backend->sendMessage(Dictionary{}, {}, 1, 1, EventID{3});
    backend->sendMessage(std::nullopt, {}, 1, 1, EventID{4});
    EXPECT_EQ(backend->sendMessage(payload, {}, 1, 1, SendFlag{}), std::nullopt);  // as sessions do
    EXPECT_EQ(backend->sendMessage(payload, {}, 300, 65535, EventID{7}), std::nullopt);
    std::string entry(1 << 16, '\0');
    entry.resize(static_cast<size_t>(recv(journal.get(), entry.data(), entry.size(), 0)));
    EXPECT_EQ(entry, field("MESSAGE", "MediaHostD-TVR") + field("PRIORITY", "6") +
                         field("SYSLOG_IDENTIFIER", "telvorad") + field("JM_CATEGORY", "28") +
                         field("JM_EVENT", "MediaHostD-TVR") + field("JM_ENTRY_A_B_", "-2") +
                         field("JM_ENTRY_A_B_", "one\ntwo=2") +
                         field("JM_ENTRY_DATA", std::string("\0\xff", 2)) + field("JM_ENTRY_EVENT", "7") +
                         field("JM_ENTRY_LIST", *serializePropertyList(Array{1}, PropertyListFormat::xml)) +
                         field("JM_ENTRY_METHOD", "300") + field("JM_ENTRY_REAL", "0.1") +
                         field("JM_ENTRY_RESPCODE", "65535") + field("JM_ENTRY_YES", "true") +
                         field("JM_ENTRY_" + std::string(55, 'Z'), "1.5"));
}

TEST(JoulemarkBackendTest, NeitherWaitsForTheJournalNorLogsValues) {
    const TemporaryDirectory directory;
    const UniqueFd behind = boundSocket(directory.path() / "journal", SOCK_DGRAM);
    const auto powerLog = makeJournalPowerLog(directory.path() / "journal");
    const LogCapture log;
    while (log.lines().empty())  // until its queue is full
        powerLog->JMLogRegisteredEvent(28, "event", {{"key", "private"}}, nullptr);
    powerLog->JMLogRegisteredEvent(28, "event", {{"key", std::string(16 << 20, 'x')}}, nullptr);
    const std::string line = "<7>JMLogRegisteredEvent: the journal took no entry: ";
    EXPECT_THAT(log.lines(),
                testing::ElementsAre(line + "Resource temporarily unavailable", line + "Message too long"));
}

}  // namespace
}  // namespace telvora::test
