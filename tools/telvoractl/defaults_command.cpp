// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>

#include "defaults_list.h"
#include "json.h"
#include "json/json_reader.h"
#include "output.h"
#include "settings.h"

namespace telvora::ctl {

namespace {

struct DefaultsOptions {
    std::string domain;
    std::string key;
    std::string type;
    std::string text;
    bool force = false;
};

template <typename Number>
std::optional<Number> numberIn(const std::string& text) {
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

tl::expected<PropertyList, std::string> valueOf(const std::string& type, const std::string& text) {
    if (type == "string") return PropertyList(text);
    if (type == "json") return parseJson(text);
    if (type == "integer") {
        if (const auto number = numberIn<int64_t>(text)) return PropertyList(*number);
    } else if (type == "real") {
        if (const auto number = numberIn<double>(text); number && std::isfinite(*number)) {
            return PropertyList(*number);
        }
    } else if (text == "true" || text == "false") {
        return PropertyList(text == "true");
    }
    return tl::unexpected("not of type " + type + (type == "boolean" ? ", which is true or false" : ""));
}

int runWrite(const DefaultsOptions& options) {
    auto value = valueOf(options.type, options.text);
    if (!value) return fail(kBadInput, options.text + ": " + value.error());
    const auto why = whyWithoutEffect(options.domain, options.key, *value);
    if (why && !options.force) return fail(kBadInput, *why + " (--force writes it all the same)");
    auto settings = Settings::open();
    if (!settings) return fail(kNotDone, settings.error());
    return settings->write(options.domain, options.key, std::move(*value));
}

int runDelete(const DefaultsOptions& options) {
    auto settings = Settings::open();
    if (!settings) return fail(kNotDone, settings.error());
    if (!settings->defaults().files(options.domain).own.contains(options.key))
        return fail(kNotDone, options.domain + " has no \"" + options.key + "\" in the daemon's own file");
    return settings->remove(options.domain, {options.key});
}

int runRead(const DefaultsOptions& options, const CommonOptions& common) {
    if (!UserDefaults::isDomain(options.domain)) {
        return fail(kBadInput, options.domain + ": not a preference domain");
    }
    auto settings = Settings::openReadable();
    if (!settings) return fail(kNotDone, settings.error());
    const UserDefaults::Files files = settings->defaults().files(options.domain);
    Dictionary all = files.own;
    all.merge(files.administrator);
    if (!options.key.empty()) {
        const PropertyList* value = all.find(options.key);
        if (value == nullptr) return fail(kNotDone, options.domain + " has no \"" + options.key + "\"");
        std::puts((common.json ? toJson(*value) : forTerminal(textOf(*value))).c_str());
        return kDone;
    }
    if (common.json) {
        std::puts(toJson(all).c_str());
        return kDone;
    }
    std::vector<std::vector<std::string>> rows{{"KEY", "SET BY", "VALUE"}};
    for (const auto& [key, value] : all) {
        rows.push_back({key, files.administrator.contains(key) ? "administrator" : "state", textOf(value)});
    }
    printTable(rows);
    return kDone;
}

}  // namespace

Command addDefaultsCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<DefaultsOptions>();
    CLI::App* command = app.add_subcommand("defaults", "Read, write or delete settings");
    command->require_subcommand(1);
    command->footer("com.zandor.telvora is the domain of the daemon's own settings: telvorad.defaults(5).");
    const CLI::App* list =
        command->add_subcommand("list", "Print all settings: value, default, range, owner and meaning");
    const auto add = [&](const char* name, const char* description) {
        CLI::App* action = command->add_subcommand(name, description);
        action->add_option("domain", options->domain, "Preference domain")
            ->required()
            ->type_name("TEXT:" + knownDomains())
            ->option_text("TEXT REQUIRED");
        return action;
    };
    const auto addKey = [&](CLI::App* action) {
        return action->add_option("key", options->key, "Key")
            ->type_name("TEXT:" + knownKeys())
            ->option_text("TEXT");
    };
    CLI::App* read = add("read", "Print a domain's settings, or the value of one");
    addKey(read);
    CLI::App* write = add("write", "Set a key");
    addKey(write)->required();
    write->add_option("type", options->type, "string, integer, real, boolean or json")
        ->required()
        ->check(CLI::IsMember({"string", "integer", "real", "boolean", "json"}));
    write->add_option("value", options->text, "Value; after -- where it begins with a hyphen")->required();
    write->add_flag("--force", options->force, "Write also an unknown key or a value without effect");
    CLI::App* remove = add("delete", "Remove a key");
    addKey(remove)->required();
    return {command, [=, &common] {
                return list->parsed()     ? listSettings(common)
                       : write->parsed()  ? runWrite(*options)
                       : remove->parsed() ? runDelete(*options)
                                          : runRead(*options, common);
            }};
}

}  // namespace telvora::ctl
