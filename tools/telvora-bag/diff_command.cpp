// SPDX-License-Identifier: Apache-2.0
//
// Compares the effects of two bags: explains both for each kind of session that one of them tells apart.
#include <algorithm>
#include <map>
#include <set>
#include <sstream>

#include "policy/client_entry.h"
#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/texts.h"

namespace telvora::bag {

namespace {

// More kinds of sessions are not compared.
constexpr size_t kMostScenarios = 2000;
constexpr uint32_t kAnyClientType = 8;

// The values of a session by which entries tell sessions apart. An absent value stands for all others.
struct Distinctions {
    std::set<std::optional<std::string>> clients{std::nullopt};
    std::set<std::optional<std::string>> services{std::nullopt};
    std::set<std::optional<std::string>> countries{"ZZ"};  // of no list
    std::set<std::string> names{"any other"};              // of devices
    std::set<std::string> products{"any other"};

    void add(const PropertyList& element) {
        const auto entry = ClientEntry::of(element);
        if (!entry) return;
        for (const std::string_view client : entry->clients())
            clients.emplace(client);
        for (const std::string_view service : entry->services())
            services.emplace(service);
        for (const std::string_view country : splitList(entry->countries()))
            countries.emplace(country);
        const Array* thresholds = entry->content().array("per_country_sampling_thresholds");
        for (const PropertyList& threshold : thresholds != nullptr ? *thresholds : Array()) {
            const auto* dictionary = threshold.getIf<Dictionary>();
            const Array* codes = dictionary != nullptr ? dictionary->array("country") : nullptr;
            for (const PropertyList& code : codes != nullptr ? *codes : Array())
                if (const auto* country = code.getIf<std::string>()) countries.emplace(*country);
        }
        for (const std::string_view name : splitList(entry->deviceWhitelist()))
            names.emplace(name);
        for (const std::string_view product : splitList(entry->deviceBlacklist()))
            products.emplace(product);
    }
};

void addDistinctions(const Dictionary& bag, EnvironmentType environment, Distinctions& distinctions) {
    Scenario scenario;
    scenario.environment = environment;
    scenario.clientType = kAnyClientType;
    const Dictionary* section = sectionForSession(bag, scenario);
    for (const auto& [name, profile] : section != nullptr ? *section : Dictionary()) {
        const auto* backend = profile.getIf<Dictionary>();
        const Array* clients = backend != nullptr ? backend->array("clients") : nullptr;
        for (const PropertyList& entry : clients != nullptr ? *clients : Array())
            distinctions.add(entry);
    }
}

// One without values if the bags do not tell devices apart.
std::vector<Dictionary> devicesOf(const Distinctions& distinctions) {
    if (distinctions.names.size() == 1 && distinctions.products.size() == 1) return {Dictionary()};
    std::vector<Dictionary> devices;
    for (const std::string& name : distinctions.names)
        for (const std::string& product : distinctions.products)
            devices.push_back({{"DeviceName", name}, {"ProductType", product}});
    return devices;
}

std::vector<Scenario> scenariosOf(EnvironmentType environment, const Distinctions& distinctions) {
    const std::vector<Dictionary> devices = devicesOf(distinctions);
    std::vector<Scenario> scenarios;
    for (const auto& client : distinctions.clients)
        for (const auto& service : distinctions.services)
            for (const auto& country : distinctions.countries)
                for (const bool consent : {false, true})
                    for (const Dictionary& device : devices) {
                        Scenario scenario;
                        scenario.environment = environment;
                        scenario.clientType = kAnyClientType;
                        scenario.clientName = client.value_or("any other client");
                        scenario.serviceName = service.value_or("any other service");
                        scenario.country = country;
                        scenario.consent = consent;
                        scenario.device = device;
                        scenarios.push_back(std::move(scenario));
                    }
    return scenarios;
}

// Empty for a bag that does not tell devices apart.
std::string describeDevice(const Dictionary& device) {
    const std::string* name = device.string("DeviceName");
    return name == nullptr ? "" : ", device " + *name + " of product type " + *device.string("ProductType");
}

std::string describe(const Scenario& scenario) {
    return sectionNameForEnvironment(scenario.environment).value_or("(none)") + ", client " +
           inQuotes(*scenario.clientName) + ", service " + inQuotes(*scenario.serviceName) + ", country " +
           (scenario.country == "ZZ" ? "any other" : *scenario.country) + describeDevice(scenario.device) +
           (scenario.consent ? ", with consent" : ", without consent");
}

// The effect on each backend, without the reasons, which stand before it.
std::vector<std::string> effectLines(const Dictionary& bag, const Scenario& scenario) {
    std::istringstream text(explainBag(bag, scenario, false));
    std::vector<std::string> lines;
    std::string backend;
    bool isEffect = false;
    for (std::string line; std::getline(text, line);) {
        const bool isTitle = !line.starts_with(' ');
        if (isTitle) backend = line;
        isEffect = !isTitle && (isEffect || line.starts_with("  =>"));
        if (line.starts_with("=>")) lines.push_back(line);  // of the whole bag
        if (isEffect) lines.push_back(backend + ":" + line.substr(1));
    }
    // The highest draw names the threshold, and an override that is below it.
    Scenario unlucky = scenario;
    unlucky.draw = 1;
    std::istringstream reasons(explainBag(bag, unlucky, false));
    for (std::string line; std::getline(reasons, line);) {
        if (!line.starts_with(' ')) backend = line;
        const size_t threshold = line.find("sampling threshold ");
        if (threshold != std::string::npos) lines.push_back(backend + ": " + line.substr(threshold));
    }
    return lines;
}

// Lines of only one of the two, "-" before those of the first, in their order.
std::string differenceOf(const std::vector<std::string>& before, const std::vector<std::string>& after) {
    const auto without = [](const std::vector<std::string>& lines, const std::vector<std::string>& others,
                            const char* sign) {
        std::string text;
        for (const std::string& line : lines) {
            if (std::find(others.begin(), others.end(), line) == others.end()) text += sign + line + '\n';
        }
        return text;
    };
    return without(before, after, "  - ") + without(after, before, "  + ");
}

}  // namespace

int diff(const std::string& oldFile, const std::string& newFile) {
    const auto before = readBag(oldFile);
    if (!before) return complain(before.error());
    const auto after = readBag(newFile);
    if (!after) return complain(after.error());

    std::map<std::string, std::vector<std::string>> sessionsByDifference;
    size_t compared = 0;
    for (const auto environment : {EnvironmentType::development, EnvironmentType::zandorInternal,
                                   EnvironmentType::seed, EnvironmentType::release}) {
        Distinctions distinctions;
        addDistinctions(*before, environment, distinctions);
        addDistinctions(*after, environment, distinctions);
        for (const Scenario& scenario : scenariosOf(environment, distinctions)) {
            if (++compared > kMostScenarios) break;
            std::string difference =
                differenceOf(effectLines(*before, scenario), effectLines(*after, scenario));
            if (!difference.empty())
                sessionsByDifference[std::move(difference)].push_back(describe(scenario));
        }
    }
    std::string text;
    for (const auto& [difference, sessions] : sessionsByDifference) {
        for (const std::string& session : sessions)
            text += session + '\n';
        text += difference + '\n';
    }
    if (compared > kMostScenarios)
        text += "Only the first " + std::to_string(kMostScenarios) + " kinds of sessions were compared.\n";
    if (text.empty()) text = "The effect is the same for all sessions.\n";
    const auto written = writeFile("-", text);
    if (!written) return complain(written.error());
    return sessionsByDifference.empty() ? kDone : kFound;
}

}  // namespace telvora::bag
