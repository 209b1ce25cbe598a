// SPDX-License-Identifier: Apache-2.0
#include "completion/program.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string_view>

#include "completion/completion.h"
#include "util/nearest_word.h"
#include "util/utf8.h"

namespace telvora {

namespace {

// The subcommand that the words have reached.
const CLI::App& reached(const CLI::App& app) {
    const auto parsed = app.get_subcommands();
    return parsed.empty() ? app : reached(*parsed.front());
}

// "there is no subcommand "stauts"; did you mean status?"; std::nullopt if the mistake is another one.
std::optional<std::string> unknownSubcommand(const CLI::App& app) {
    const CLI::App& place = reached(app);
    if (place.get_require_subcommand_min() == 0) return std::nullopt;
    const std::vector<std::string> words = app.remaining(true);
    const auto word = std::find_if(words.begin(), words.end(),
                                   [](const std::string& each) { return !each.starts_with('-'); });
    if (word == words.end()) return std::nullopt;
    std::vector<std::string_view> names;
    for (const CLI::App* each : place.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(each->get_name());
    return "there is no subcommand \"" + escapeControlCharacters(*word) + "\"" + suggestion(*word, names);
}

// "there is no option "--clent-type"; did you mean --client-type?"; std::nullopt if the mistake is another
// one.
std::optional<std::string> unknownOption(const CLI::App& app) {
    const std::vector<std::string> words = app.remaining(true);
    const auto word = std::find_if(words.begin(), words.end(),
                                   [](const std::string& each) { return each.starts_with("--"); });
    if (word == words.end()) return std::nullopt;
    std::vector<std::string> names;
    for (const CLI::App* place = &reached(app); place != nullptr; place = place->get_parent()) {
        for (const CLI::Option* option : place->get_options()) {
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
        }
    }
    const std::string given = word->substr(0, word->find('='));
    return "there is no option \"" + escapeControlCharacters(given) + "\"" +
           suggestion(given, std::vector<std::string_view>(names.begin(), names.end()));
}

}  // namespace

bool printVersion(const char* program, int argc, const char* const* argv) {
    if (argc != 2 || std::string_view(argv[1]) != "--version") return false;
    std::printf("%s %s\n", program, TELVORA_VERSION);
    return true;
}

std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv, int badInput) {
    const std::string name = std::filesystem::path(argc > 0 ? argv[0] : "").filename();
    app.set_version_flag("--version", name + " " + TELVORA_VERSION, "Print the version and exit");
    if (printCompletions(app, argc, argv)) return 0;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const bool isMistake = error.get_exit_code() != 0;
        auto unknown = isMistake ? unknownSubcommand(app) : std::nullopt;
        if (isMistake && !unknown) unknown = unknownOption(app);
        if (unknown) {
            std::fprintf(stderr, "%s: %s\nRun with --help for more information.\n", name.c_str(),
                         unknown->c_str());
            return badInput;
        }
        return app.exit(error) == 0 ? 0 : badInput;
    }
    return std::nullopt;
}

}  // namespace telvora
