// SPDX-License-Identifier: Apache-2.0
#include "defaults_list.h"

#include <algorithm>

#include "config/device_identity.h"
#include "http/http_request_rules.h"
#include "output.h"
#include "settings.h"
#include "util/nearest_word.h"

namespace telvora::ctl {

namespace {

using Words = std::vector<std::string_view>;

// Without repetitions, in the order of the table.
template <typename Wanted>
Words namesOf(Wanted wanted) {
    Words names;
    for (const Setting* setting : knownSettings()) {
        const std::optional<std::string_view> name = wanted(*setting);
        if (name && std::ranges::find(names, *name) == names.end()) names.push_back(*name);
    }
    return names;
}

Words domains() {
    return namesOf([](const Setting& setting) { return std::optional(setting.domain); });
}

Words keysOf(std::string_view domain) {
    return namesOf([&](const Setting& setting) {
        return setting.domain == domain ? std::optional(setting.key) : std::nullopt;
    });
}

std::string listed(const Words& words) {
    std::string text;
    for (const std::string_view word : words)
        text.append(text.empty() ? "{" : ",").append(word);
    return text + "}";
}

bool isOfType(SettingType type, const PropertyList& value) {
    switch (type) {
        case SettingType::integer:
            return value.is<int64_t>();
        case SettingType::boolean:
            return value.is<bool>();
        case SettingType::string:
            return value.is<std::string>();
        case SettingType::listOfStrings:
        case SettingType::listsOfUsers:
            return value.is<Array>();
    }
    return false;
}

bool isURL(const Setting& setting) {
    return &setting == &settings::kStorebagURL || &setting == &settings::kPostURL ||
           &setting == &settings::kRealtimePostURL;
}

std::string standardOf(const Setting& setting) {
    std::string text = defaultOf(setting);
    if (setting.type == SettingType::integer && setting.most != std::numeric_limits<int64_t>::max()) {
        text += " (" + std::to_string(setting.least) + " to " + std::to_string(setting.most) + ")";
    }
    return text;
}

// A setting, or a key without one, as its files have it.
struct Line {
    std::string key;
    const Setting* setting = nullptr;  // null: unknown
    const PropertyList* value = nullptr;
    bool isAdministrators = false;

    std::string problem() const {
        if (setting == nullptr) return "unknown key" + suggestion(key, keysOf(kTelvoraDefaultsDomain));
        if (value == nullptr) return {};
        if (setting->administratorOnly && !isAdministrators)
            return "ignored: not in the administrator's file";
        const auto why = whyUnfit(*setting, *value);
        return why ? "ignored: " + *why : std::string();
    }
    std::string source() const {
        return value == nullptr ? "default" : isAdministrators ? "administrator" : "state";
    }
    Dictionary described() const {
        Dictionary all{{"key", key}, {"source", source()}};
        if (value != nullptr) all.set("value", *value);
        if (const std::string why = problem(); !why.empty()) all.set("problem", why);
        if (setting == nullptr) return all;
        all.set("domain", std::string(setting->domain));
        all.set("meaning", std::string(setting->meaning));
        all.set("default", defaultOf(*setting));
        all.set("changesApply", std::string(describe(setting->effect)));
        all.set("needsRestart", setting->effect == SettingEffect::restart);
        if (!setting->unit.empty()) all.set("unit", std::string(setting->unit));
        if (setting->type == SettingType::integer) {
            all.set("least", setting->least);
            all.set("most", setting->most);
        }
        return all;
    }
    std::vector<std::string> row() const {
        const std::string given = value != nullptr ? textOf(*value) : "-";
        if (setting == nullptr) return {key, given, "-", "-", source(), "-", problem()};
        const std::string why = problem();
        const bool isUsed = value != nullptr && why.empty();
        const std::string standard = setting->otherwise.empty() ? defaultOf(*setting) : "-";
        return {key,
                isUsed ? given : standard,
                standardOf(*setting),
                setting->unit.empty() ? "-" : std::string(setting->unit),
                source(),
                std::string(describe(setting->effect)),
                (why.empty() ? "" : given + " is " + why + "; ") + std::string(setting->meaning)};
    }
};

std::vector<Line> linesOf(std::string_view domain, const UserDefaults::Files& files) {
    const auto valueOf = [&](std::string_view key, Line& line) {
        line.value = files.administrator.find(key);
        line.isAdministrators = line.value != nullptr;
        if (line.value == nullptr) line.value = files.own.find(key);
    };
    std::vector<Line> lines;
    for (const std::string_view key : keysOf(domain)) {
        valueOf(key, lines.emplace_back(Line{std::string(key), findSetting(domain, key)}));
    }
    if (domain != kTelvoraDefaultsDomain) return lines;
    Dictionary all = files.own;
    all.merge(files.administrator);
    for (const auto& [key, value] : all) {
        if (findSetting(domain, key) != nullptr || DeviceIdentity::isIdentifierKey(key)) continue;
        valueOf(key, lines.emplace_back(Line{key}));
    }
    return lines;
}

}  // namespace

int listSettings(const CommonOptions& common) {
    auto settings = Settings::openReadable();
    if (!settings) return fail(kNotDone, settings.error());
    Array all;
    for (const std::string_view domain : domains()) {
        const UserDefaults::Files files = settings->defaults().files(domain);
        std::vector<std::vector<std::string>> rows{
            {"KEY", "VALUE", "DEFAULT", "UNIT", "SET BY", "CHANGES APPLY", "MEANING"}};
        for (const Line& line : linesOf(domain, files)) {
            rows.push_back(line.row());
            all.push_back(line.described());
        }
        if (common.json) continue;
        std::printf("%s%.*s\n", domain == domains().front() ? "" : "\n", static_cast<int>(domain.size()),
                    domain.data());
        printTable(rows);
    }
    if (common.json) std::puts(toJson(all).c_str());
    return kDone;
}

std::optional<std::string> whyWithoutEffect(const std::string& domain, const std::string& key,
                                            const PropertyList& value) {
    const Setting* setting = findSetting(domain, key);
    if (setting == nullptr) {
        const Words keys = keysOf(domain);
        if (keys.empty()) return domain + " is no domain of settings" + suggestion(domain, domains());
        return domain + " has no setting \"" + key + "\"" + suggestion(key, keys);
    }
    if (const auto why = whyUnfit(*setting, value)) return key + " " + *why;
    if (!isOfType(setting->type, value))  // a dictionary fits no setting
        return key + " " + whyUnfit(*setting, Dictionary()).value_or("has another type");
    if (setting->administratorOnly) return key + " counts only in the administrator's file";
    const std::string* const text = value.getIf<std::string>();
    if (text == nullptr || !isURL(*setting)) return std::nullopt;
    if (const auto fault = faultOfRequest({.url = *text})) return key + ": " + *fault;
    const bool isBase = setting == &settings::kStorebagURL;
    if (isBase && (text->ends_with('/') || text->find_first_of("?#") != std::string::npos))
        return key + " must end without a slash and have no query: devices append /NAME?version=VERSION";
    return std::nullopt;
}

std::string knownDomains() {
    return listed(domains());
}

std::string knownKeys() {
    return listed(namesOf([](const Setting& setting) { return std::optional(setting.key); }));
}

}  // namespace telvora::ctl
