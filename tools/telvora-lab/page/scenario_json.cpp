// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/page/scenario_json.h"

#include "config/client_type.h"
#include "platform/locale.h"

namespace telvora::lab {
namespace {

// Absent if the text is empty, too: a form has no other way to say so.
std::optional<std::string> textOf(const Dictionary& fields, std::string_view key) {
    const std::string* text = fields.string(key);
    return text != nullptr && !text->empty() ? std::optional(*text) : std::nullopt;
}

}  // namespace

tl::expected<bag::Scenario, std::string> scenarioOf(const Dictionary& fields) {
    bag::Scenario scenario;
    const auto clientType = fields.integer("clientType");
    if (!clientType || factsOfClientType(*clientType) == nullptr) {
        return tl::unexpected(std::string("the client type is no number from 0 to ") +
                              std::to_string(kLastClientType));
    }
    scenario.clientType = static_cast<uint32_t>(*clientType);
    scenario.clientName = textOf(fields, "clientName");
    scenario.serviceName = textOf(fields, "serviceName");
    if (const Dictionary* userInfo = fields.dictionary("userInfo")) scenario.userInfo = *userInfo;
    if (fields.contains("requireUserInfo")) scenario.requireUserInfo = fields.boolean("requireUserInfo");
    scenario.batch = fields.boolean("batch");
    if (const auto name = textOf(fields, "environment")) {
        const auto environment = bag::environmentNamed(*name);
        if (!environment) return tl::unexpected("there is no environment \"" + *name + "\"");
        scenario.environment = *environment;
    }
    if (const auto country = textOf(fields, "country")) {
        scenario.country = countryCodeOf(*country);
        if (!scenario.country)
            return tl::unexpected("\"" + *country + "\" is no country's code of two letters");
    }
    scenario.consent = fields.boolean("consent");
    scenario.draw = fields.real("draw").value_or(0);
    if (scenario.draw < 0 || scenario.draw > 1)
        return tl::unexpected(std::string("the draw is not from 0 to 1"));
    if (const Dictionary* device = fields.dictionary("device")) scenario.device = *device;
    return scenario;
}

}  // namespace telvora::lab
