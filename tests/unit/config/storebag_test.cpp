// SPDX-License-Identifier: Apache-2.0
//
// Signed bags, how they are fetched, and the section that a session gets.
#include <gmock/gmock.h>

#include "config/storebag_service.h"
#include "tests/support/fake_http_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/signed_document.h"
#include "tests/support/temporary_directory.h"
#include "util/base64.h"

namespace telvora::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kBase = "http://bags.test/b";
const std::string kFetch = "fetchStorebagWithName: ";
const std::string kMissing = "<3>" + kFetch + "Signature is missing";
const std::string kNotVerified = "<3>" + kFetch + "Signature can not be verified, 0x";
const std::string kParseError = "<3>" + kFetch + "propertyListWithData error ";
const std::string kNoProperties = kParseError + "not a property list";
const std::string kSelect = "fetchStorebagForEnvironmentAndClientType: ";

const Dictionary kSection{{"httpPost", Dictionary{{"active", true}}}};
const Dictionary kBag{{"version", "1.2"}, {"release", kSection}};

MATCHER(StartsWithOther, "") {
    return std::get<0>(arg).starts_with(std::get<1>(arg));
}

TEST(SignedBag, OpensWhatItsKeySigned) {
    const std::string key = bagKey().publicKeyToDer();
    const std::string otherKey = RsaPrivateKey::generate(2048).value().publicKeyToDer();
    for (const auto format : {PropertyListFormat::xml, PropertyListFormat::binary}) {
        const std::string document = signBag(serialized(kBag, format), bagKey()).value();
        EXPECT_EQ(openSignedBag(document, {key}), kBag);
        Dictionary outer = *parsePropertyList(document)->getIf<Dictionary>();
        const std::string* text = outer.string("bag");
        outer.set("bag", "\n  " + text->substr(0, 5) + "\r\n" + text->substr(5));
        outer.set("other", 1);
        EXPECT_EQ(openSignedBag(serialized(outer, PropertyListFormat::binary), {"no key", otherKey, key}),
                  kBag);
    }
    // The longest bag.
    const std::string start = "<dict><key>k</key><string>", end = "</string></dict>";
    const std::string longest = start + std::string(kMaxInnerBagBytes - start.size() - end.size(), 'x') + end;
    EXPECT_TRUE(openSignedBag(signBag(longest, bagKey()).value(), {key}));
    EXPECT_FALSE(signBag(longest + " ", bagKey()));
}

TEST(SignedBag, OpensNothingElse) {
    const std::string inner = serialized(kBag), list = serialized(Array{1});
    const std::string key = bagKey().publicKeyToDer(), whole = signedDocument(kBag);
    const PropertyList signature = base64Encode(bagKey().signSha1(inner));
    const RsaPrivateKey otherKey = RsaPrivateKey::generate(2048).value();
    std::string tampered = inner, deep;
    for (int i = 0; i < 65; ++i)
        deep = "<array>" + deep + "</array>";
    tampered[tampered.find("httpPost")] = 'H';
    const auto document = [](const PropertyList& bag, const PropertyList& signedWith) {
        return serialized(Dictionary{{"bag", bag}, {"signature", signedWith}});
    };
    // The document, the public keys, and the beginnings of the lines.
    const std::string other = otherKey.publicKeyToDer();
    const std::tuple<std::string, Lines, Lines> cases[] = {
        {"", {key}, {kNoProperties, kMissing}},
        {"<html>no</html>", {key}, {kParseError, kMissing}},
        {list, {key}, {kMissing}},
        {serialized(Dictionary{{"bag", base64Encode(inner)}}), {key}, {kMissing}},
        {document(base64Encode(inner), 1), {key}, {kMissing}},
        {whole, {}, {}},
        {whole, {"no key"}, {}},
        {document(base64Encode(inner), "AAA"), {key}, {}},
        {serialized(Dictionary{{"signature", signature}}), {key}, {}},
        {document("=", signature), {key}, {}},
        {document(base64Encode(tampered), signature), {key}, {kNotVerified}},
        {document(base64Encode(inner), ""), {key}, {kNotVerified}},
        {document("", signature), {key}, {kNotVerified}},
        {signBag(inner, otherKey).value(), {key}, {kNotVerified}},
        {whole, {other, other}, {kNotVerified}},
        {signBag(list, bagKey()).value(), {key}, {}},
        {signBag("hello", bagKey()).value(), {key}, {}},
        {signBag(deep, bagKey()).value(), {key}, {"<3>" + kFetch + "The bag is over a limit: nested more"}}};
    for (const auto& [text, publicKeys, beginnings] : cases) {
        SCOPED_TRACE(text);
        const LogCapture log;
        EXPECT_FALSE(openSignedBag(text, publicKeys));
        EXPECT_THAT(log.lines(), testing::Pointwise(StartsWithOther(), beginnings));
    }
}

// A fetcher whose server answers what `answer` holds.
struct Fixture {
    explicit Fixture(const Dictionary& settings = {}) {
        Dictionary all = settings;
        all.set("telvora_storebag_url", kBase);
        directory.write("etc/Preferences/com.zandor.telvora.plist", serialized(all));
        directory.write("framework/publicKey.der", bagKey().publicKeyToDer());
        directory.write("framework/Info.plist", serialized(Dictionary{{"CFBundleVersion", "9.1"}}));
        http.setHandler([this](const HttpRequest&) { return answer; });
    }

    TemporaryDirectory directory;
    UserDefaults defaults{directory.path() / "etc", directory.path() / "state"};
    DeviceProperties properties{Dictionary{}};
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    ClientFramework framework{directory.path() / "framework"};
    FakeHttpClient http;
    HttpResult answer = FakeHttpClient::response(200, signedDocument(kBag));
    StorebagFetcher fetcher{{http, environment, framework}};
    StorebagFetchStatus status{.maxAge = -7};

    std::optional<Dictionary> fetch(std::optional<std::string> name) {
        std::optional<Dictionary> bag;
        fetcher.fetchStorebagWithName(std::move(name), status, [&](auto fetched, auto after) {
            bag = std::move(fetched);
            status = std::move(after);
        });
        return bag;
    }
    FetchedStorebag fetchSection(uint32_t clientType) {
        FetchedStorebag result;
        fetcher.fetchStorebagForEnvironmentAndClientType(
            clientType, status, [&](FetchedStorebag fetched) { result = std::move(fetched); });
        return result;
    }
};

TEST(StorebagFetcher, AsksForTheBagByNameAndVersion) {
    Fixture f;
    const LogCapture log;
    const std::string url = kBase + "/orbel?version=9.1";
    EXPECT_EQ(f.fetch("orbel"), kBag);
    EXPECT_FALSE(f.status.notChanged);
    EXPECT_EQ(log.lines(), (Lines{"<7>" + kFetch + "Storebag Server URL: " + url}));
    const HttpRequest request = f.http.requests().at(0);
    EXPECT_EQ(request.method + " " + request.url, "GET " + url);
    EXPECT_TRUE(request.headers.empty());
    EXPECT_EQ(request.timeout, std::chrono::seconds(15));

    std::filesystem::remove(f.directory.path() / "framework/Info.plist");
    f.fetch(std::nullopt);
    EXPECT_EQ(f.http.requests().at(1).url, kBase + "/(null)?version=8.0");
}

TEST(StorebagFetcher, ReadsMaxAgeFromCacheControl) {
    const std::pair<int32_t, std::vector<const char*>> cases[] = {
        {600, {"max-age=600", "public, max-age=600", "max-age=600, private", "max-age 600"}},
        {0, {"max-age=abc", "max-age=", "max-age= 600"}},
        {86400, {"", "max-age", "Max-Age=600", "public,max-age=600"}},
        {2, {"s-max-age=1 max-age=2 max-age=3"}},
        {INT32_MAX, {"max-age=99999999999999999999"}}};
    Fixture f;
    for (const auto& [maxAge, values] : cases) {
        for (const char* value : values) {
            f.answer = FakeHttpClient::response(200, "", {{"cache-control", value}});
            f.fetch("orbel");
            EXPECT_EQ(f.status.maxAge, maxAge) << value;
        }
    }
    f.answer = FakeHttpClient::response(
        200, "", {{"Cache-Control", "public"}, {"X", "max-age=1"}, {"cache-control", "max-age=7"}});
    f.fetch("orbel");
    EXPECT_EQ(f.status.maxAge, 7) << "of two lines";
}

TEST(StorebagFetcher, HonoursLastModified) {
    const HttpHeaders undated, dated{{"Last-Modified", "new"}, {"Cache-Control", "max-age=5"}};
    const HttpHeaders broken{{"Last-Modified", "new\x01"}};
    const std::string whole = signedDocument(kBag);
    const std::string adding = "<7>" + kFetch + "Adding 'Last-Modified: old' to the header";
    const std::string received = "<7>" + kFetch + "New 'Last-Modified: new' received";
    const std::string unchanged =
        "<7>" + kFetch + "storebag content has not changed. using its cached version";
    using When = std::optional<std::string>;
    // The answer, the date before and after it, whether it says "not changed", whether it has a bag, and the
    // lines after that of the URL.
    const std::tuple<int, std::string, HttpHeaders, When, When, bool, bool, Lines> cases[] = {
        {304, "", dated, "old", "old", true, false, {adding, unchanged}},
        {200, whole, dated, "old", "new", false, true, {adding, received}},
        {200, whole, dated, std::nullopt, "new", false, true, {received}},
        {200, whole, undated, "old", "old", false, true, {adding}},
        {200, whole, broken, "old", "old", false, true, {adding}},
        {200, whole, broken, std::nullopt, std::nullopt, false, true, {}},
        // An empty answer is only unchanged with a date on both sides.
        {200, "", undated, "old", "old", false, false, {adding, kNoProperties, kMissing}},
        {200, "", dated, std::nullopt, "new", false, false, {received, kNoProperties, kMissing}}};
    for (const auto& [status, body, headers, before, after, notChanged, hasBag, expected] : cases) {
        Fixture f;
        f.answer = FakeHttpClient::response(status, body, headers);
        f.status.lastModified = before;
        const LogCapture log;
        EXPECT_EQ(f.fetch("orbel").has_value(), hasBag);
        EXPECT_EQ(f.status.notChanged, notChanged);
        EXPECT_EQ(f.status.lastModified, after);
        EXPECT_EQ(headerOf(f.http.requests().at(0), "If-Modified-Since"), before.value_or(""));
        Lines lines = log.lines();
        lines.erase(lines.begin());
        EXPECT_EQ(lines, expected);
    }
}

TEST(StorebagFetcher, StandsInForQuilletOnlyWhenTheServerIsOutOfReach) {
    Fixture f;
    f.answer = FakeHttpClient::failure("no route");
    f.status.lastModified = "old";
    const std::string error = "<6>" + kFetch + "Error resolving with lookup server " + kBase;
    const std::string ending = "?version=9.1, sendSynchronousRequest error no route";
    Dictionary builtIn{{"version", "1.0.0-Quillet-Fallback"}, {"refresh_cycle", 3600}};
    for (const char* section : {"zandor_internal", "development", "release"})
        builtIn.set(section, Dictionary{{"vodex", Dictionary{{"active", true}}}});
    const LogCapture log;
    EXPECT_EQ(f.fetch("quillet"), builtIn);
    EXPECT_TRUE(f.status.builtIn);
    EXPECT_EQ(log.count(error + "/quillet" + ending), 1u);
    EXPECT_EQ(log.lines().back(), "<6>" + kFetch + "Loading default storebag 'quillet'");
    EXPECT_EQ(f.fetch("orbel"), std::nullopt);
    EXPECT_EQ(log.lines().back(), error + "/orbel" + ending);
    EXPECT_EQ(f.status.maxAge, -7);
    EXPECT_EQ(f.status.lastModified, "old");
    f.answer = FakeHttpClient::response(500, "broken");
    EXPECT_EQ(f.fetch("quillet"), std::nullopt);
    EXPECT_EQ(f.status.maxAge, 86400);
    EXPECT_EQ(f.status.report.url, kBase + "/quillet");
    EXPECT_EQ(f.status.report.fault.reason, "the server answered 500");
}

// As an HTTP thread that is done before start() has returned: an exception of the completion has to destroy
// the calls that wait for the bag, since they are answered with an error then.
TEST(StorebagFetcher, HoldsNoCompletionThatItsClientHasRun) {
    struct : FakeHttpClient {
        void start(HttpRequest, Completion completion) override {
            EXPECT_THROW(std::exchange(completion, {})(failure("")), std::bad_alloc);
            EXPECT_TRUE(waiting.expired());
        }
        std::weak_ptr<int> waiting;
    } http;
    Fixture f;
    const StorebagFetcher fetcher{
        {http, f.environment, f.framework, [](const auto&) { throw std::bad_alloc(); }}};
    auto waiting = std::make_shared<int>();
    http.waiting = waiting;
    fetcher.fetchStorebagForEnvironmentAndClientType(1, {}, [held = std::move(waiting)](const auto&) {});
}

TEST(StorebagSelection, ChoosesTheSectionOfTheEnvironment) {
    const std::string age = "<6>" + kSelect + "Store bag override MaxAge=";
    const std::string noSeed = "<4>" + kSelect + "Seed section is missing in the storebag.";
    const std::string none = "<3>" + kSelect + "Could not find storebag for client type 5 with ";
    const auto with = [](const char* key, const PropertyList& value) {
        return Dictionary::merged(kBag, {{key, value}});
    };
    // The environment, the bag, the section, its age, and the lines above debug level after that of the
    // environment.
    const std::tuple<int, Dictionary, std::optional<Dictionary>, int32_t, Lines> cases[] = {
        {4, kBag, kSection, 60, {}},
        {3, with("seed", Dictionary{{"s", 1}}), Dictionary{{"s", 1}}, 60, {}},
        {3, kBag, kSection, 60, {noSeed}},
        {3, {}, std::nullopt, 60, {noSeed, none + "seed environment"}},
        {1, kBag, std::nullopt, 60, {none + "development environment"}},
        {0, kBag, std::nullopt, 60, {none + "(null) environment"}},
        {4, with("release", "x"), std::nullopt, 60, {none + "release environment"}},
        {4, with("refresh_cycle", 100000), kSection, 86400, {age + "86400"}},
        {4, with("refresh_cycle", 600), kSection, 600, {age + "600"}},
        {4, with("refresh_cycle", -5), kSection, -5, {age + "-5"}}};
    for (const auto& [environment, bag, section, maxAge, expected] : cases) {
        Fixture f({{"environmentType", environment}});
        f.answer = FakeHttpClient::response(200, signedDocument(bag), {{"Cache-Control", "max-age=60"}});
        f.environment.userDefaultsEnvironment();
        const LogCapture log;
        const FetchedStorebag fetched = f.fetchSection(5);
        EXPECT_EQ(fetched.section, section);
        EXPECT_EQ(fetched.version, section ? std::optional("1.2") : std::nullopt);
        EXPECT_EQ(fetched.status.maxAge, maxAge);
        Lines lines = log.lines();
        std::erase_if(lines, [](const std::string& line) { return line.starts_with("<7>"); });
        EXPECT_EQ(lines, expected);
    }
}

TEST(StorebagSelection, SaysWhyThereIsNone) {
    Fixture f;
    f.answer = FakeHttpClient::failure("down");
    const LogCapture log;
    EXPECT_EQ(f.fetchSection(0).section, std::nullopt);
    EXPECT_EQ(f.http.requestCount(), 0u);
    EXPECT_EQ(log.lines(), (Lines{"<3>" + kSelect + "Could not find storebag name for client type 0"}));

    EXPECT_EQ(f.fetchSection(4).section, std::nullopt);
    EXPECT_EQ(f.http.requests().at(0).url, kBase + "/(null)?version=9.1");
    EXPECT_EQ(log.lines().back(), "<3>" + kSelect + "Could not fetch storebag for client type 4");

    const FetchedStorebag standIn = f.fetchSection(11);
    std::string names;
    for (uint32_t clientType = 4; clientType < 20; ++clientType)
        names += bagNameForClientType(clientType).value_or("-") + " ";
    EXPECT_EQ(names,
              "- orbel vantor quillet dravik fenlow pellam quillet kestova quillet vantor vantor tamsel "
              "corvane lindqvar - ");
    EXPECT_EQ(standIn.version, "1.0.0-Quillet-Fallback");
    EXPECT_EQ(standIn.status.maxAge, 3600);
}

// Each step is a new process.
TEST(KeptBags, LetANewProcessGoOn) {
    constexpr uint32_t kType = 8;
    Fixture f;
    const KeptBags kept(f.directory.path() / "Bags");
    double now = 1447660800;
    const auto bagOfVersion = [](const char* version) {
        return FakeHttpClient::response(
            200, signedDocument(Dictionary{{"version", version}, {"release", kSection}}),
            {{"Last-Modified", "Mon, 16 Nov 2015 08:00:00 GMT"}, {"Cache-Control", "max-age=600"}});
    };
    const HttpResult unreachable = FakeHttpClient::failure("no network");
    const HttpResult unchanged = FakeHttpClient::response(
        304, "", {{"Last-Modified", "Mon, 16 Nov 2015 08:00:00 GMT"}, {"Cache-Control", "max-age=600"}});
    const auto file = (f.directory.path() / "Bags" / "dravik.plist");
    const struct {
        const char* what;
        double later;  // seconds since the step before
        HttpResult answer;
        bool asks;
        const char* version;  // of the bag that the session gets; null: none
        std::function<void()> before = {};
    } steps[] = {
        {"the first", 0, bagOfVersion("1"), true, "1"},
        {"young", 599, bagOfVersion("2"), false, "1"},
        {"old", 2, unchanged, true, "1"},
        {"young again", 599, bagOfVersion("2"), false, "1"},
        {"offline", 2, unreachable, true, "1"},
        {"waiting", 899, bagOfVersion("2"), false, "1"},
        {"waited", 2, bagOfVersion("2"), true, "2"},
        {"changed", 1, bagOfVersion("3"), true, "3",
         [&] {
             const KeptBag bag = kept.load("dravik", kBase + "/dravik").value();
             KeptBag forged = bag;
             forged.document[forged.document.size() / 2] ^= 1;
             kept.save("dravik", forged);
         }},
        {"unreadable", 1, bagOfVersion("4"), true, "4",
         [&] { f.directory.write("Bags/dravik.plist", "nonsense"); }},
        {"of another server", 1, bagOfVersion("5"), true, "5",
         [&] {
             KeptBag bag = kept.load("dravik", kBase + "/dravik").value();
             bag.url = "http://elsewhere.test/dravik";
             kept.save("dravik", bag);
         }},
    };
    for (const auto& [what, later, answer, asks, version, before] : steps) {
        SCOPED_TRACE(what);
        now += later;
        f.answer = answer;
        if (before) before();
        const size_t asked = f.http.requestCount();
        StorebagService service(
            f.fetcher,
            [&now] {
                return TimeValue{static_cast<int32_t>(now), 0};
            },
            &kept);
        std::shared_ptr<const Dictionary> section;
        service.request(kType, [&section](const auto& found) { section = found; });
        EXPECT_EQ(f.http.requestCount() - asked, asks ? 1U : 0U);
        EXPECT_EQ(service.version(kType), version);
        ASSERT_TRUE(section);
        EXPECT_EQ(*section, kSection);
    }
    EXPECT_EQ(headerOf(f.http.requests().at(1), "If-Modified-Since"), "Mon, 16 Nov 2015 08:00:00 GMT");
    EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
    EXPECT_TRUE(kept.removeAll());
    EXPECT_FALSE(std::filesystem::exists(file));
}

}  // namespace
}  // namespace telvora::test
