// SPDX-License-Identifier: Apache-2.0
//
// The mistakes of a new administrator or developer: for each, the doctor's step that shows the cause and the
// words that name it; and the reasons in the status.
#include <sys/stat.h>
#include <unistd.h>

#include "plist/property_list_format.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/scripted_server.h"

namespace telvora::test {
namespace {

class DoctorFixture : public DaemonFixture {
  public:
    using DaemonFixture::bags;
    using DaemonFixture::directory;
    using DaemonFixture::laboratory;
    using DaemonFixture::reports;

    // Serves client type 8 a bag whose only entry is open but for `changes` and the key `missing`.
    void serve(const Dictionary& changes, const char* missing = "") {
        Dictionary entry = openClientEntry(changes);
        entry.erase(missing);
        laboratory().setBag("dravik", bagWithClients({std::move(entry)}));
    }
    void write(const char* file, const Dictionary& content) {
        directory().write(file, serializePropertyList(content, PropertyListFormat::xml).value());
    }
    void report() {
        const Session session = open();
        session->send(4, 2);
        session->flush();
    }
    Finished doctor(const std::string& arguments, int status, const std::string& words,
                    const std::string& prefix = "") {
        return expectRun(
            prefix + TELVORACTL_PATH " doctor --socket " + daemon().socketPath() + " " + arguments, status,
            words, "", environment());
    }
    std::map<std::string, std::string> environment() {
        return {{"CONFIGURATION_DIRECTORY", directory().path() / "config"},
                {"STATE_DIRECTORY", directory().path() / "state"},
                {"TELVORA_FRAMEWORK_DIR", laboratory().pki().frameworkDirectory()}};
    }

    std::unique_ptr<lab::Laboratory> otherLaboratory;
    std::unique_ptr<ScriptedServer> brokenServer;
};

using Make = std::function<void(DoctorFixture&, DaemonOptions&)>;
using MakeLater = std::function<void(DoctorFixture&)>;

struct Mistake {
    const char* name;
    int step;
    const char* words;
    Make make = {};  // before the daemon's start
    const char* arguments = "--client-type 8";
    MakeLater makeLater = {};  // while it runs
    const char* prefix = "";
};
void PrintTo(const Mistake& mistake, std::ostream* out) {
    *out << mistake.words;
}

Make serves(const Dictionary& changes, const char* missing = "") {
    return [=](auto& f, auto&) { f.serve(changes, missing); };
}
Make sets(const char* key, const PropertyList& value) {
    return [=](auto&, auto& options) { options.defaults.set(key, value); };
}
MakeLater writes(const char* file, const Dictionary& content) {
    return [=](auto& f) { f.write(file, content); };
}
void report(DoctorFixture& f) {
    f.report();
}
constexpr char kSocket[] = "run/com.zandor.telvorad", kBagURL[] = "telvora_storebag_url",
               kAny[] = "--client-type 8";

const Make kAsUsual;
const MakeLater kNoMore;

const Mistake kMistakes[] = {
    {"SocketAbsent", 11, "there is no socket ", kAsUsual, kAny,
     [](auto& f) { std::filesystem::remove(f.directory().path() / kSocket); }},
    {"GroupMissing", 11, "is not in that group", kAsUsual, kAny,
     [](auto& f) { chmod((f.directory().path() / kSocket).c_str(), 0660); }, kAsNobody},
    {"SocketIsAFile", 11, "run/com.zandor.telvorad is no socket", kAsUsual, kAny,
     [](auto& f) {
         std::filesystem::remove(f.directory().path() / kSocket);
         f.directory().write(kSocket, "");
     }},
    {"NotEntitled", 12, "60-nobody.plist: its \"User\" is another one",
     [](auto&, auto& options) { options.entitlement = {}; }},
    {"SettingMisspelt", 14, "httpPostURL is unknown; did you mean httpsPostURL?",
     sets("httpPostURL", "https://127.0.0.1/")},
    {"HoldWithoutOutbox", 14, "holdOnMetered needs an outbox (outboxBytes)", sets("holdOnMetered", true)},
    {"SettingOfTheAdministratorInTheDaemonsFile", 14, "counts in the administrator's file only",
     [](auto& f, auto&) {
         f.write("state/Preferences/com.zandor.telvora.plist", {{"proxy", "http://p/"}});
     }},
    {"FileOfASettingMissing", 14,
     "caFile can't be used: /none.pem: can't be opened: ", sets("caFile", "/none.pem")},
    {"SettingsFileMalformed", 14, "com.zandor.telvora.plist can't be used: ", kAsUsual, kAny,
     [](auto& f) { f.directory().write("config/Preferences/com.zandor.telvora.plist", "<plist>"); }},
    {"QuotaFull", 13, "the quota sessions of user ", sets("maxSessionsPerUser", 0)},
    {"KeyNotPinned", 17, "correct the setting pinnedPublicKeys",
     sets("pinnedPublicKeys", "sha256//" + std::string(43, 'A') + "=")},
    {"BagURLMissing",  // a value that counts as absent
     14, "(built in: no setting telvora_storebag_url)", sets(kBagURL, 7)},
    {"PublicKeyMissing", 15, "there is no publicKey.der in ",
     [](auto& f, auto& options) { options.frameworkDirectory = f.directory().path() / "logs"; }},
    {"ClientTypeWithoutBag", 16, "no bag exists for client type 3", kAsUsual, "--client-type 3"},
    {"SettingNotReadYet", 16, "restart the daemon", kAsUsual, kAny,
     [](auto& f) {
         f.report();
         f.write("config/Preferences/com.zandor.telvora.plist", {{kBagURL, "https://new/"}});
     }},
    {"BagURLMisspelt", 17, "the server answered 404",
     [](auto& f, auto& options) { options.defaults.set(kBagURL, f.bags().baseURL() + "x"); }},
    {"HostUnknown", 17, "resolve", sets(kBagURL, "https://no-such-host.invalid/bags")},
    {"CertificateUntrusted", 17, "SSL_CERT_FILE",
     [](auto& f, auto& options) {
         f.otherLaboratory = lab::Laboratory::make(f.directory().path() / "other").value();
         options.defaults.set(kBagURL, f.otherLaboratory->bags().baseURL());
     }},
    {"BagAbsent", 17, "pellam, 0 s ago: the server answered 404", kAsUsual, "--client-type 10"},
    {"BagServerFails", 17, "the server answered 503",
     [](auto& f, auto& options) {
         f.brokenServer = std::make_unique<ScriptedServer>([](auto& connection) {
             connection.readRequest();
             connection.send("HTTP/1.1 503 No\r\nContent-Length: 0\r\n\r\n");
         });
         options.defaults.set(kBagURL, f.brokenServer->url());
     }},
    {"SignedWithAnotherKey", 18, "no public key verifies the signature",
     [](auto& f, auto&) { f.bags().setFault("dravik", lab::BagFault::foreignKey); }},
    {"SectionMissing", 19, "the bag has no section \"release\"",
     [](auto& f, auto&) {
         f.laboratory().setBag("dravik", Dictionary{{"development", Dictionary()}});
     }},
    {"NoEntryForTheClient", 20,
     "no entry applies to client \"me\" and service (unknown); clients[0]: skipped: it applies to client \"other\"",
     serves({{"client", "other"}}), "--client-type 8 --client-name me"},
    {"ConsentOfAnotherType", 14, "Enabled must be a boolean", kAsUsual, kAny,
     writes("config/Preferences/com.zandor.diagnosticsharing.plist", {{"Enabled", "yes"}})},
    {"ConsentOff", 21, "the user does not share diagnostics", kAsUsual, kAny,
     writes("config/Preferences/com.zandor.diagnosticsharing.plist", {{"Enabled", false}})},
    {"CountryNotInTheList", 22, "country \"US\" is not in locale_whitelist \"CH\"",
     serves({{"locale_whitelist", "CH"}})},
    {"DeviceNotInTheList", 23, "device \"Labdevice\" is not in device_whitelist \"other\"",
     serves({{"device_whitelist", "other"}})},
    {"CategoryExcluded", 24, "category 66 is excluded: it is on event_blacklist",
     serves({{"event_blacklist", Array{66}}}), "--client-type 8 --category 66"},
    {"SampledOut", 25, "is above the sampling threshold 0", serves({{"sampling_threshold", 0.0}}),
     "--client-type 8 --draw 0.5"},
    {"PostURLMissing", 26, "the entry has no post_url", serves({}, "post_url")},
    {"ReportingServerFails", 27, "the last answer: 503, 0 s ago",
     [](auto& f, auto&) { f.reports().setFault(lab::ReportingFault::serviceUnavailable); }, kAny, report},
    {"HostOfTheReportingServerUnknown", 27, "the resolution of names",
     serves({{"post_url", "https://no-such-host.invalid/"}}), kAny, report},
    {"None", 0, "the last answer: 200", kAsUsual, kAny, report},
    {"NoneAsTheSessionSees", 0, "\"cause\":\"it answers StartConfig\"", kAsUsual, "--client-type 8 --json",
     kNoMore, kAsNobody},
};

class Doctor : public DoctorFixture, public testing::WithParamInterface<Mistake> {};

TEST_P(Doctor, NamesTheCause) {
    const Mistake& mistake = GetParam();
    if (geteuid() != 0 && *mistake.prefix != '\0') GTEST_SKIP() << "only root can be somebody else";
    startDaemon([&](DaemonOptions& options) {
        if (mistake.make) mistake.make(*this, options);
    });
    letOthersIn();
    if (mistake.makeLater) mistake.makeLater(*this);
    doctor(mistake.arguments, mistake.step, mistake.words, mistake.prefix);
}

std::string nameOf(const testing::TestParamInfo<Mistake>& mistake) {
    return mistake.param.name;
}
INSTANTIATE_TEST_SUITE_P(Mistakes, Doctor, testing::ValuesIn(kMistakes), nameOf);

using StatusReasons = DoctorFixture;

TEST_F(StatusReasons, StandBesideTheNumbersAndOutliveTheDaemon) {
    serve({{"override_dnu", 0}});
    startDaemon();
    letOthersIn();
    write("config/Preferences/com.zandor.diagnosticsharing.plist", {{"Enabled", false}});
    const auto expectStatus = [this](const std::string& words, const std::string& arguments = "") {
        expectRun(TELVORACTL_PATH " status --socket " + daemon().socketPath() + arguments, 0, words);
    };
    const Session session = open({}, {});
    session->send(4, 2);
    expectStatus("tester/integration  8 ");
    expectStatus("httpPost disabled (consent is off)");
    expectStatus("disabled 2 (consent is off)");
    expectStatus("\"disabledBecause\":{\"consentMissing\":2}", " --json");
    std::filesystem::remove(directory().path() / "config/entitlements.d/60-nobody.plist");
    if (geteuid() == 0) {
        doctor("--client-type 8", 12, "is not entitled", kAsNobody);
        expectStatus("refused connections: 1 not entitled; the last one not entitled: pid ");
    }
    reports().setFault(lab::ReportingFault::notFound);
    write("config/Preferences/com.zandor.diagnosticsharing.plist", {{"Enabled", true}});
    report();
    expectStatus("  404, 0 s ago");
    ChildProcess watch(
        {{TELVORACTL_PATH, "status", "--watch", "0.1", "--socket", daemon().socketPath()}, {}});
    for (size_t seen = 0, i = 0; i < 2; ++i, seen = watch.output().lineCount())
        EXPECT_TRUE(watch.output().waitForPart("telvorad 1.", seen));
    for (int daemons = 0; daemons < 2; ++daemons) {  // the first of which has no reports
        stopDaemon();
        startDaemon();
        expectStatus("disabled 3 (consent is off)");
    }
}

}  // namespace
}  // namespace telvora::test
