// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/lint.h"

#include "platform/digest.h"
#include "tests/unit/bag/bag_cases.h"
#include "util/base64.h"

namespace telvora::bag {
namespace {

// The findings, without the common beginning of their paths.
Lines lines(const std::vector<Finding>& findings, std::string_view beginning = "") {
    Lines all;
    for (const Finding& f : findings) {
        EXPECT_TRUE(f.path.starts_with(beginning)) << f.path;
        all.push_back(f.path.substr(beginning.size()) +
                      (f.severity == Severity::error ? ": error: " : ": warning: ") + f.text);
    }
    return all;
}

const char kGoodClient[] = R"({"client": "app", "locale_whitelist": "DE,ch", "filters": [],
    "sampling_threshold": 0.5, "event_threshold": 49, "post_url": "https://reports.example/"})";

std::vector<Finding> lintClients(Array clients) {
    const Dictionary section{{"httpPost", Dictionary{{"clients", std::move(clients)}}}};
    return lintBag({{"version", "1"}, {"release", section}});
}

TEST(Lint, FindsWhatIsWrongWithAnEntry) {
    for (const auto& [changes, findings] : casesOf("lint_entry.txt")) {
        const Dictionary client = Dictionary::merged(json(kGoodClient), json(changes));
        EXPECT_EQ(lines(lintClients({client}), "release/httpPost/clients[0]"), findings) << changes;
    }
    EXPECT_THAT(lines(lintClients({Dictionary()}), "release/httpPost/clients[0]"),
                testing::Contains(
                    "/locale_whitelist: error: absent: every session that requires user info is refused"));
}

TEST(Lint, FindsEntriesThatOthersLeaveNothingFor) {
    for (const auto& [changes, findings] : casesOf("lint_entries.txt")) {
        const PropertyList both = parseJson(changes).value();
        Array clients;
        for (const PropertyList& change : *both.getIf<Array>()) {
            Dictionary client = json(kGoodClient);
            client.erase("client");
            client.merge(*change.getIf<Dictionary>());
            clients.emplace_back(std::move(client));
        }
        EXPECT_EQ(lines(lintClients(std::move(clients)), "release/httpPost/clients"), findings) << changes;
    }
}

TEST(Lint, FindsWhatIsWrongAroundTheEntries) {
    for (const auto& [document, findings] : casesOf("lint_document.txt"))
        EXPECT_EQ(lines(lintDocument(json(document))), findings) << document;

    const Dictionary aSignedOne{{"bag", base64Encode("{}")}, {"signature", "AAAA"}};
    EXPECT_THAT(lines(lintDocument(aSignedOne)),
                testing::ElementsAre(testing::StartsWith("bag: error: bag: no property list")));
}

}  // namespace
}  // namespace telvora::bag
