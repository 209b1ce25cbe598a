// SPDX-License-Identifier: Apache-2.0
#include <fstream>
#include <iostream>

#include "platform/locale.h"
#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/explain.h"

namespace telvora::bag {

namespace {

std::optional<EnvironmentType> environmentOf(const std::string& nameOrNumber) {
    for (const auto type :
         {EnvironmentType::none, EnvironmentType::development, EnvironmentType::zandorInternal,
          EnvironmentType::seed, EnvironmentType::release}) {
        if (nameOrNumber == std::to_string(static_cast<unsigned>(type))) return type;
        if (nameOrNumber == sectionNameForEnvironment(type)) return type;
    }
    return std::nullopt;
}

tl::expected<std::string, std::string> replayFile(const Dictionary& bag, const Scenario& scenario,
                                                  const std::string& path) {
    std::ifstream file;
    if (path != "-") file.open(path);
    std::istream& reports = path == "-" ? std::cin : file;
    if (!reports) return tl::unexpected(path + ": can't be read");
    auto text = replayReports(bag, scenario, reports);
    if (!text) return tl::unexpected(path + ": " + text.error());
    if (reports.bad()) return tl::unexpected(path + ": can't be read");
    return "\n" + path + "\n" + *text;
}

}  // namespace

int explain(const ExplainOptions& options) {
    Scenario scenario = options.scenario;
    const auto environment = environmentOf(options.environment);
    if (!environment)
        return complain("--environment " + options.environment + ": there is no such environment");
    scenario.environment = *environment;
    if (scenario.country) {
        const std::string given = *scenario.country;
        scenario.country = countryCodeOf(given);
        if (!scenario.country) return complain("--country " + given + ": is no code of two letters");
    }
    if (options.deviceFile) {
        auto device = readDictionary(*options.deviceFile);
        if (!device) return complain(device.error());
        scenario.device = std::move(*device);
        const std::string* country = scenario.device.string("CountryCode");
        if (!scenario.country && country != nullptr) scenario.country = countryCodeOf(*country);
    }
    const auto bag = readBag(options.file);
    if (!bag) return complain(bag.error());

    std::string text = explainBag(*bag, scenario, options.log);
    if (options.eventsFile) {
        const auto replay = replayFile(*bag, scenario, *options.eventsFile);
        if (!replay) return complain(replay.error());
        text += *replay;
    }
    const auto written = writeFile("-", text);
    return written ? kDone : complain(written.error());
}

}  // namespace telvora::bag
