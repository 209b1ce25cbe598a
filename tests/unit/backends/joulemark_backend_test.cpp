// SPDX-License-Identifier: Apache-2.0
#include "backends/joulemark_backend.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "backends/backend_factory.h"
#include "platform/power_log.h"
#include "platform/property_list_format.h"
#include "tests/unit/backends/backend_rig.h"
#include "util/unique_fd.h"

namespace telvora {
namespace {

using test::BackendRig;
using test::LogCapture;

// A journal: its socket, and its reading of entries.
struct Journal {
    explicit Journal(const std::string& path) : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    // The fields of the next entry as "NAME=value". A test that hangs here is ended by its timeout.
    std::vector<std::string> next() const {
        std::string entry(1 << 16, '\0');
        entry.resize(static_cast<size_t>(recv(socket.get(), entry.data(), entry.size(), 0)));
        std::vector<std::string> fields;
        for (std::string_view rest = entry; !rest.empty();) {
            const size_t name = rest.find('\n');
            uint64_t length = 0;
            for (size_t i = 8; i > 0; --i)
                length = length << 8 | static_cast<uint8_t>(rest.at(name + i));
            fields.push_back(std::string(rest.substr(0, name)) + '=' +
                             std::string(rest.substr(name + 9, length)));
            EXPECT_EQ(rest.at(name + 9 + length), '\n');
            rest.remove_prefix(name + 10 + length);
        }
        return fields;
    }

    UniqueFd socket;
};

TEST(JoulemarkBackendTest, WritesOneEntryPerReport) {
    BackendRig rig;
    const std::string path = rig.directory.path() / "journal";
    const std::unique_ptr<PowerLog> powerLog = makeJournalPowerLog(path);
    rig.services.powerLog = powerLog.get();
    const auto backend = std::static_pointer_cast<JoulemarkBackend>(
        BackendFactory(rig.services).newBackendWithName(kTelvoraBackendJoulemark, nullptr, "family", 1));
    const Dictionary payload{{"event", "old"},       {"a b\xe4", -2},
                             {"a_b_", "one\ntwo=2"}, {"yes", true},
                             {"real", 0.1},          {"data", Data{std::string("\0\xff", 2)}},
                             {"list", Array{1}},     {std::string(90, 'z'), Date{1.5}}};
    // While no journal is there, nothing happens.
    EXPECT_EQ(backend->sendMessage(payload, {}, 1, 1, EventID{1}), std::nullopt);

    const Journal journal(path);
    backend->sendMessage(payload, {}, 0, 1, EventID{2});
    backend->sendMessage(Dictionary{}, {}, 1, 1, EventID{3});
    backend->sendMessage(std::nullopt, {}, 1, 1, EventID{4});
    EXPECT_EQ(backend->sendMessage(payload, {}, 1, 1, SendFlag{}), std::nullopt);  // what sessions call
    EXPECT_EQ(backend->sendMessage(payload, {}, 300, 65535, EventID{7}), std::nullopt);
    const std::vector<std::string> fields{
        "MESSAGE=MediaHostD-TVR",
        "PRIORITY=6",
        "SYSLOG_IDENTIFIER=telvorad",
        "JM_CATEGORY=28",
        "JM_EVENT=MediaHostD-TVR",
        "JM_ENTRY_A_B_=-2",
        "JM_ENTRY_A_B_=one\ntwo=2",
        std::string("JM_ENTRY_DATA=\0\xff", 16),
        "JM_ENTRY_EVENT=7",
        "JM_ENTRY_LIST=" + *serializePropertyList(Array{1}, PropertyListFormat::xml),
        "JM_ENTRY_METHOD=300",
        "JM_ENTRY_REAL=0.1",
        "JM_ENTRY_RESPCODE=65535",
        "JM_ENTRY_YES=true",
        "JM_ENTRY_" + std::string(55, 'Z') + "=1.5"};
    EXPECT_EQ(journal.next(), fields);
}

TEST(JoulemarkBackendTest, WaitsForNoJournalAndTellsNoValues) {
    const lab::TemporaryDirectory directory;
    const Journal behind(directory.path() / "journal");
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
}  // namespace telvora
