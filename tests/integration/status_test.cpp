// SPDX-License-Identifier: Apache-2.0
//
// The status for administrators: all reports are accounted for under load, with any fault of the reporting
// server, and over quota; access to the status socket; and tools.
#include <fcntl.h>

#include <algorithm>
#include <thread>

#include "platform/digest.h"
#include "platform/user_defaults.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::ReportingFault;

// The number of reports at a place of an account, 0 if there is no such place or account.
int64_t reportsAt(const Dictionary* account, const char* place) {
    if (account == nullptr) return 0;
    const Dictionary* lost = account->dictionary("lost");
    return account->integer(place).value_or(lost != nullptr ? lost->integer(place).value_or(0) : 0);
}

class Status : public DaemonFixture {
  protected:
    std::string socketPath() { return statusSocketBeside(daemon().socketPath()); }
    // The daemon's status, in which all accounts balance.
    Dictionary status() {
        Dictionary answer = DaemonFixture::status();
        std::vector<const Dictionary*> owners{answer.dictionary("totals")};
        for (const PropertyList& session : *answer.array("sessions"))
            owners.push_back(session.getIf<Dictionary>()->dictionary("accounts"));
        for (const Dictionary* accounts : owners) {
            for (const auto& [name, value] : *accounts) {
                const auto& account = *value.getIf<Dictionary>();
                const int64_t inFlight = reportsAt(&account, "inFlight"), held = reportsAt(&account, "held");
                int64_t found = inFlight + held + reportsAt(&account, "delivered");
                for (const auto& [cause, reports] : *account.dictionary("lost"))
                    found += reports.integerValue().value_or(0);
                EXPECT_EQ(account.integer("accepted"), found) << name;
                // a place that was left more often than entered would have a number near 2^64
                EXPECT_TRUE(inFlight >= 0 && held >= 0) << name;
            }
        }
        return answer;
    }
    // The backend's total, once it has accepted so many reports and all of them are settled.
    Dictionary settled(int64_t accepted) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            const Dictionary now = status();
            const Dictionary* account = now.dictionary("totals")->dictionary("httpPost");
            if (reportsAt(account, "accepted") >= accepted && reportsAt(account, "inFlight") == 0 &&
                reportsAt(account, "held") == 0)
                return *account;
        }
        throw std::runtime_error("reports are still on their way");
    }
};

TEST_F(Status, BooksBalanceUnderLoadAndFaults) {
    constexpr int64_t kClients = 4, kReports = 60;
    // Batched and realtime reports, one in ten with a category that the bag excludes. The session's end
    // flushes the rest.
    const auto reportAndLeave = [this](int64_t sessionID) {
        const Session session = open({.sessionID = sessionID});
        for (int i = 0; i < kReports; ++i)
            session->send(i % 10 == 0 ? 66 : 4, 1, {{"number", i}}, i % 7 == 0 ? 1 : 0);
    };
    laboratory().setBag(
        "dravik",
        bagWithClients({openClientEntry({{"event_blacklist", Array{66}}, {"event_threshold", 5}})}));
    startDaemon([](DaemonOptions& options) { options.logLevel = 6; });
    const std::jthread reader([this](const std::stop_token& stop) {
        while (!stop.stop_requested())
            status();
    });
    const struct {
        const char* what;
        std::optional<ReportingFault> fault;  // absent: connections are refused
        const char* place;                    // of the posted reports
    } phases[] = {{"well", ReportingFault::none, "delivered"},
                  {"404", ReportingFault::notFound, "rejected"},
                  {"closing", ReportingFault::noAnswer, "noAnswer"},
                  {"closing halfway", ReportingFault::halfAnswer, "noAnswer"},
                  {"503", ReportingFault::serviceUnavailable, "serverError"},
                  {"hanging", ReportingFault::hold, "delivered"},
                  {"refusing", std::nullopt, "noConnection"},
                  {"well again", ReportingFault::none, "delivered"}};
    Dictionary before;
    for (const auto& [what, fault, place] : phases) {
        SCOPED_TRACE(what);
        const size_t arrivedBefore = reports().eventCount();
        const size_t messagesBefore = reports().messageCount();
        reports().setFault(fault.value_or(ReportingFault::none));
        if (!fault) reports().refuse();
        {
            std::vector<std::jthread> clients;
            for (int64_t id = 1; id <= kClients; ++id)
                clients.emplace_back(reportAndLeave, id);
        }
        if (fault == ReportingFault::hold) {
            EXPECT_TRUE(reports().waitForMessages(messagesBefore + 1, kPatience));
            const Dictionary now = status();
            const Dictionary* held = now.dictionary("totals")->dictionary("httpPost");
            EXPECT_GT(reportsAt(held, "inFlight"), 0);
            EXPECT_EQ(reportsAt(held, "delivered"), reportsAt(&before, "delivered"));
            reports().setFault(ReportingFault::none);
            reports().releaseHeld();
        }
        // the daemon's own start and end messages are posted like reports
        constexpr int64_t kAccepted = kClients * (kReports + 2);
        const Dictionary after = settled(reportsAt(&before, "accepted") + kAccepted);
        const auto more = [&](const char* at) { return reportsAt(&after, at) - reportsAt(&before, at); };
        EXPECT_EQ(more("accepted"), kAccepted);
        EXPECT_EQ(more("blacklisted"), kClients * kReports / 10);
        const auto arrived = static_cast<int64_t>(reports().eventCount() - arrivedBefore);
        EXPECT_EQ(fault ? more(place) : arrived, fault ? arrived : 0);
        EXPECT_EQ(more("accepted"), more("blacklisted") + more(place) + more("disabled"));
        if (fault != ReportingFault::serviceUnavailable) {
            EXPECT_EQ(more("disabled"), 0);
        }
        before = after;
        ASSERT_TRUE(fault || reports().accept());
    }
}

// To a collector of metrics, and to a server. The counts outlive the daemon, and the identifiers do not.
TEST_F(Status, GivesItsNumbersAway) {
    const std::string file = directory().path() / "telvorad.prom", promtool = "/usr/bin/promtool";
    const std::string reports = "{client_type=\"8\",backend=\"httpPost\"} ";
    const std::string lost = R"({client_type="8",backend="httpPost",cause="blacklisted"} )";
    laboratory().setBag("dravik", bagWithClients({openClientEntry({{"event_blacklist", Array{66}}})}));
    for (int64_t life = 1; life <= 2; ++life) {
        startDaemon();
        for (const int64_t category : {4, 66})
            open()->send(category, 1, {}, 1);
        settled(6);  // with the sessions' starts and ends; send-health makes four more
        const std::string telvoractl = TELVORACTL_PATH " --socket " + daemon().socketPath();
        expectRun(telvoractl + " status --openmetrics --output " + file, 0);
        const std::string text = readFile(file);
        for (const std::string& line :
             {"telvora_reports_accepted_total" + reports + std::to_string(10 * life - 4),
              "telvora_reports_delivered_total" + reports + std::to_string(9 * life - 4),
              "telvora_reports_lost_total" + lost + std::to_string(life),
              std::string("# TYPE telvora_sessions gauge\ntelvora_sessions{client_type=\"none\"} 0"),
              std::string("telvora_bag_fresh{bag=\"dravik\",client_type=\"8\"} 1"),
              std::string("telvora_sandbox_in_force{rule=\"systemCallFilter\"} 1"),
              std::string("telvora_http_pending 0")})
            EXPECT_NE(text.find("\n" + line + "\n"), text.npos) << line << " is not in\n" << text;
        EXPECT_TRUE(text.ends_with("\n# EOF\n"));
        EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0644));
        if (std::filesystem::exists(promtool)) expectRun(promtool + " check metrics", 0, "", text);

        expectRun(telvoractl + " send-health --client-type 8 --category 5 --type 1 --confirm", 0,
                  "delivered");
        const std::vector<Dictionary> events = this->reports().events();
        const std::string cause = "reports.8.httpPost.lost.blacklisted";
        const auto isHealth = [&](const Dictionary& event) { return event.integer(cause) == life; };
        const auto health = std::find_if(events.begin(), events.end(), isHealth);
        ASSERT_NE(health, events.end());
        EXPECT_EQ(health->integer("since").value_or(1) % 86400, 0);
        stopDaemon();
    }
    expectRun(TELVORACTL_PATH " reset-identifiers --yes", 0, "", "",
              {{"STATE_DIRECTORY", directory().path() / "state"}});
    EXPECT_FALSE(std::filesystem::exists(directory().path() / "state/lastTotals.plist"));
}

TEST_F(Status, TellsOfSessionsBagsAndReportsThatReachNobody) {
    startDaemon();
    BlockingSession session(daemon().socketPath(), {.hierarchyToken = hierarchyToken("t", 0)});
    session.send(4, 1);  // before there are backends
    session.startConfig();
    session.send(4, 1);
    session.startConfig();  // the start message and the report were in the old backend's batch
    expectLine(
        "<4>createBackendsWithStorebag: Session 1 is configured anew without a flush: 2 reports that its "
        "backends held are lost");

    const Dictionary now = status();
    const Array& sessions = *now.array("sessions");
    ASSERT_EQ(sessions.size(), 1u);
    const Dictionary& told = *sessions[0].getIf<Dictionary>();
    EXPECT_EQ(*told.string("token"), "t");
    EXPECT_EQ(told.integer("hierarchyUser"), int64_t{geteuid()});
    EXPECT_EQ(told.dictionary("client")->integer("pid"), getpid());
    EXPECT_EQ(*told.dictionary("backends")->dictionary("httpPost")->string("state"), "reporting");
    const Dictionary& accounts = *told.dictionary("accounts");
    EXPECT_EQ(reportsAt(accounts.dictionary("none"), "notConfigured"), 1);
    EXPECT_EQ(reportsAt(accounts.dictionary("httpPost"), "sessionEnded"), 2);
    EXPECT_EQ(reportsAt(accounts.dictionary("httpPost"), "held"), 1);
    const Dictionary& bag = *now.array("bags")->front().getIf<Dictionary>();
    EXPECT_EQ(*bag.string("name") + " " + *bag.string("version") + " " + *bag.string("state"),
              "dravik 1.0 fresh");
    EXPECT_TRUE(now.dictionary("sandbox")->boolean("systemCallFilter"));
    EXPECT_EQ(now.dictionary("daemon")->integer("pid"), daemon().pid());
}

// Uses up each quota of this process's user in turn. Another user is served as before.
TEST_F(Status, ShowsAUserOverItsQuotasWhomNobodyElseNotices) {
    startDaemon();
    letOthersIn();
    UserDefaults defaults(directory().path() / "config", directory().path() / "state");
    // The daemon reads the quota at the query's connection, which it may refuse.
    const auto limit = [&](const char* key, int64_t most) {
        ASSERT_TRUE(defaults.set(kTelvoraDefaultsDomain, key, most));
        static_cast<void>(queryStatus(kGetStatus, socketPath(), kPatience));
    };
    const auto use = [](const Dictionary& status, const char* quota, const char* what) {
        for (const PropertyList& user : *status.array("users")) {
            const auto& described = *user.getIf<Dictionary>();
            if (described.integer("user") != int64_t{geteuid()}) continue;
            return described.dictionary("quotas")->dictionary(quota)->integer(what).value_or(-1);
        }
        return int64_t{-1};
    };
    int64_t accepted = 0;  // of the backend
    const auto expectOver = [&](const std::string& quota) {
        expectLine("<3>UserQuotas: user " + std::to_string(geteuid()) + " is over the quota of " + quota);
        if (geteuid() != 0) return;  // only root can become another user
        const size_t from = daemon().logLineCount();
        expectRun(std::string(kAsNobody) + TELVORACTL_PATH " oneshot --socket " + daemon().socketPath() +
                      " --client-type 8 --session-id 9 --category 4 --type 1 --client-name other"
                      " --require-user-info",
                  0);
        expectLineBeginning("<6>writeToLogFile: Saved log message to ", from);
        ++accepted;
    };

    BlockingSession one(daemon().socketPath()), two(daemon().socketPath());
    limit("maxSessionsPerUser", 2);
    EXPECT_THROW(BlockingSession(daemon().socketPath()), std::runtime_error);
    expectOver("2 sessions (maxSessionsPerUser)");
    EXPECT_EQ(use(status(), "sessions", "held"), 2);
    EXPECT_EQ(use(status(), "sessions", "refused"), 1);
    limit("maxConnectionsPerUser", 2);
    expectOver("2 connections (maxConnectionsPerUser)");
    limit("maxConnectionsPerUser", 1024);

    limit("maxExtensionTokensPerUser", 2);
    const std::string path = directory().write("file", "content");
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto token = one.issueFileExtension(path, file.get());
    EXPECT_TRUE(token && two.issueFileExtension(path, file.get()));
    EXPECT_FALSE(two.issueFileExtension(path, file.get()));
    expectOver("2 extensionTokens (maxExtensionTokensPerUser)");
    one.uploadFile("file://" + path, *token);
    EXPECT_TRUE(two.issueFileExtension(path, file.get()));

    limit("maxPendingBytesPerUser", 20'000);
    reports().setFault(ReportingFault::hold);
    one.startConfig();
    constexpr int kSent = 10;
    for (int i = 0; i < kSent; ++i)
        one.send(4, 1, {{"number", i}}, 1);
    expectOver("20000 pendingBytes (maxPendingBytesPerUser)");
    accepted += 1 + kSent;
    const Dictionary now = status();
    const int64_t lost = reportsAt(now.dictionary("totals")->dictionary("httpPost"), "overQuota");
    EXPECT_GT(lost, 0);
    EXPECT_EQ(use(now, "pendingBytes", "refused"), lost);
    EXPECT_GT(use(now, "pendingBytes", "held"), 0);
    reports().setFault(ReportingFault::none);
    reports().releaseHeld();
    const Dictionary after = settled(accepted);
    EXPECT_EQ(reportsAt(&after, "delivered"), accepted - lost);
    EXPECT_EQ(use(status(), "pendingBytes", "held"), 0);

    limit("maxLogLinesPerUser", 60);
    ptrdiff_t calls = 0;
    for (; use(status(), "logLines", "refused") == 0; ++calls)
        two.uploadLogData({});
    expectOver("60 logLines (maxLogLinesPerUser)");
    const std::vector<std::string> lines = daemon().logLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "<3>uploadLogData: Log data array upload failed") + 1,
              calls);
}

TEST_F(Status, IsReadWithTheUsualToolsByThoseWhoMay) {
    startDaemon();
    letOthersIn();
    const std::string clients = " --address=unix:path=" + daemon().socketPath();
    const std::string administrators = clients + ".Status";
    const std::string busctl = "/usr/bin/busctl", target = " com.zandor.telvorad /com/zandor/telvorad ";
    const std::string introspect = "/usr/bin/gdbus introspect", call = "/usr/bin/gdbus call",
                      object = " --dest com.zandor.telvorad --object-path /com/zandor/telvorad ";
    const std::string session = "com.zandor.telvorad.ClientSessionInterface";
    const std::string fetch = object + "--method " + session + ".FetchDisplayURL";
    const std::string get = object + "--method com.zandor.telvorad.Status.GetStatus";
    const std::string telvoractl = TELVORACTL_PATH " status --socket " + daemon().socketPath();
    const struct {
        std::string command;
        int exitStatus;
        const char* says;
    } cases[] = {
        {busctl + clients + " introspect" + target, 0, ".StartConfig"},
        {busctl + clients + " tree com.zandor.telvorad", 0, "/com/zandor/telvorad"},
        {busctl + clients + " call" + target + session + " FetchDisplayURL", 0, "URL not available"},
        {introspect + clients + object, 0, "FetchDisplayURL"},
        {call + clients + fetch, 0, "URL not available"},
        {call + clients + object + "--method org.freedesktop.DBus.Properties.GetAll " + session, 0, "{}"},
        {call + clients + get, 1, "Unknown"},
        {busctl + administrators + " introspect" + target, 0, ".GetStatus"},
        {busctl + administrators + " call" + target + "com.zandor.telvorad.Status GetDevice", 0, "Labdevice"},
        {introspect + administrators + object, 0, "GetDevice"},
        {call + administrators + get, 0, "landlockAbi"},
        {call + administrators + fetch, 1, "Unknown"},
        {telvoractl, 0, "all so far"},
        {telvoractl + " --json", 0, "\"totals\":{"},
        {kAsNobody + call + administrators + get, 1, "AccessDenied"},
        {kAsNobody + telvoractl, 1, "telvora-admin"},
        {kAsNobody + telvoractl.substr(0, telvoractl.find(' ')) + " tail --socket " + daemon().socketPath(),
         1, "telvora-admin"},
    };
    if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
    for (const auto& [command, exitStatus, says] : cases)
        expectRun(command, exitStatus, says);
}

TEST_F(Status, TailShowsWhatLeaves) {
    const Array filters{Dictionary{{"key", "name"}, {"action", "sha256"}},
                        Dictionary{{"key", "secret"}, {"action", "remove"}}};
    laboratory().setBag("dravik", bagWithClients({openClientEntry({{"filters", filters}})}));
    startDaemon();
    const ChildProcess viewer({{TELVORACTL_PATH, "tail", "--json", "--socket", daemon().socketPath()}, {}});
    ASSERT_TRUE(viewer.errors().waitForPart("watching"));
    const Session session = open();
    reports().setFault(ReportingFault::serviceUnavailable);
    session->send(4, 2, {{"name", "Ada"}, {"secret", "xyzzy"}, {"shown", "plugh"}}, 1);
    const std::vector<std::string> expected[] = {
        {"\"kind\":\"bag\"", "\"method\":\"GET\"", "/dravik?version="},
        {"\"kind\":\"answer\"", "\"status\":200"},
        {"\"kind\":\"filtered\"", R"("keys":{"name":"hashed","secret":"removed"})", "\"category\":4"},
        {"\"kind\":\"message\"", R"("shown":"plugh")", R"("name":")" + sha256Hex("Ada"), "\"clientId\""},
        {"\"kind\":\"answer\"", "\"status\":503"},
    };
    for (const auto& parts : expected) {
        const auto hasAll = [&parts](std::string_view line) {
            return std::all_of(parts.begin(), parts.end(),
                               [line](const std::string& part) { return line.find(part) != line.npos; });
        };
        EXPECT_TRUE(viewer.output().waitFor(hasAll)) << testing::PrintToString(parts);
    }
    for (const std::string& line : viewer.output().lines())
        EXPECT_EQ(line.find("xyzzy"), line.npos) << line;
}

}  // namespace
}  // namespace telvora::test
