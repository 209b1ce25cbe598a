// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <algorithm>

#include "client/status_query.h"
#include "device_answer.h"
#include "output.h"
#include "protocol/status_keys.h"

namespace telvora::ctl {

namespace {

constexpr std::chrono::minutes kPatience{5};  // for one fetch after another, of 15 s each at most

bool isFetched(const Dictionary& bag) {
    const std::string* state = bag.string(status::kState);
    return bag.boolean(status::kFetched) && state != nullptr && *state != "fallback";
}

std::string textAt(const Dictionary& bag, const char* key) {
    const PropertyList* value = bag.find(key);
    return value != nullptr ? textOf(*value) : "-";
}

int runRefresh(const CommonOptions& common) {
    tl::expected<Dictionary, BusQueryFailure> answer;
    withProgress("fetching the bags",
                 [&] { answer = queryStatus(kRefreshBags, statusSocketBeside(common.socket()), kPatience); });
    if (!answer) {
        const Failure failure = failureOf(answer.error());
        return fail(failure.status, failure.reason);
    }
    if (common.json) std::puts(toJson(*answer).c_str());
    const Array* bags = answer->array(status::kBags);
    std::vector<std::vector<std::string>> rows{{"BAG", "TYPE", "VERSION", "FETCHED"}};
    bool all = true;
    for (const PropertyList& element : bags != nullptr ? *bags : Array()) {
        const auto* bag = element.getIf<Dictionary>();
        if (bag == nullptr) continue;
        // Client types without a bag share one that no server has.
        all = all && (isFetched(*bag) || !bag->contains(status::kName));
        rows.push_back({textAt(*bag, status::kName), textAt(*bag, status::kClientType),
                        textAt(*bag, status::kVersion), isFetched(*bag) ? "yes" : "no"});
    }
    if (!common.json && rows.size() == 1) {
        std::puts("The daemon has no bag yet. It fetches one with the first session of a client type.");
    } else if (!common.json) {
        printTable(rows);
    }
    return all ? kDone : fail(kNotDone, "not all bags could be fetched; 'telvoractl status' has the reasons");
}

}  // namespace

Command addRefreshCommand(CLI::App& app, const CommonOptions& common) {
    CLI::App* command = app.add_subcommand("refresh", "Let the daemon fetch its bags anew");
    command->footer(
        "Sessions keep their configuration. Those that are configured later use the new bags.\n"
        "For root, the daemon's user and the group telvora-admin.");
    return {command, [&common] { return runRefresh(common); }};
}

}  // namespace telvora::ctl
