// SPDX-License-Identifier: Apache-2.0
#include "completion/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

namespace telvora {

namespace {

const CLI::Option* findOption(const CLI::App* app, const std::string& name) {
    for (; app != nullptr; app = app->get_parent()) {
        if (const CLI::Option* option = app->get_option_no_throw(name)) return option;
    }
    return nullptr;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* findCommand(const CLI::App& app, const std::string& name) {
    const auto commands = commandsOf(app);
    const auto found = std::find_if(commands.begin(), commands.end(),
                                    [&](const CLI::App* command) { return command->get_name() == name; });
    return found != commands.end() ? *found : nullptr;
}

// The meaning of a list of words up to the last one.
struct Place {
    const CLI::App* app;
    const CLI::Option* option = nullptr;  // the next word is its value
    int valuesMissing = 0;
    size_t positionals = 0;  // number of positionals before the last word
    bool optionsOver = false;

    void take(const std::string& word) {
        if (valuesMissing > 0) {
            --valuesMissing;
        } else if (word == "--") {
            optionsOver = true;
        } else if (!optionsOver && word.size() > 1 && word.front() == '-') {
            option = findOption(app, word);
            valuesMissing = option != nullptr ? option->get_items_expected_min() : 0;
        } else if (const CLI::App* command = findCommand(*app, word)) {
            app = command;
            positionals = 0;
        } else {
            ++positionals;
        }
    }
};

class Candidates {
  public:
    Candidates(std::string prefix, std::ostream& out) : prefix_(std::move(prefix)), out_(out) {}

    void add(const std::string& word, const std::string& description = {}) const {
        if (!word.starts_with(prefix_)) return;
        out_ << word << (description.empty() ? "" : "\t" + description) << '\n';
    }
    // The values of an option as its validator's description lists them: "TEXT:{on,off}",
    // "TEXT:{no->0,yes->1}".
    void addValues(const CLI::Option& option) const {
        const std::string type = option.get_type_name();
        const size_t begin = type.find('{');
        if (begin == std::string::npos) {
            if (type.starts_with("TEXT")) out_ << "<files>\n";
            return;
        }
        for (const std::string& value :
             CLI::detail::split(type.substr(begin + 1, type.find('}') - begin - 1), ','))
            add(value.substr(0, value.find("->")));
    }
    // Options of the parent commands are included where these are accepted. Options without a group are
    // hidden.
    void addOptions(const CLI::App* app) const {
        for (; app != nullptr; app = app->get_fallthrough() ? app->get_parent() : nullptr) {
            for (const CLI::Option* option : app->get_options()) {
                if (option->get_group().empty()) continue;
                for (const std::string& name : option->get_lnames())
                    add("--" + name, option->get_description());
            }
        }
    }
    void addCommands(const CLI::App& app) const {
        for (const CLI::App* command : commandsOf(app))
            add(command->get_name(), command->get_description());
    }

  private:
    const std::string prefix_;
    std::ostream& out_;
};

}  // namespace

void complete(const CLI::App& app, std::vector<std::string> words, std::ostream& out) {
    // Shells split --name=value into three words.
    if (words.empty() || words.back() == "=") words.emplace_back();
    std::erase(words, "=");
    const std::string last = words.back();
    words.pop_back();
    Place place{&app};
    for (const std::string& word : words)
        place.take(word);

    const Candidates candidates(last, out);
    if (place.valuesMissing > 0) return candidates.addValues(*place.option);
    if (!place.optionsOver && last.starts_with('-')) return candidates.addOptions(place.app);
    const auto positionals =
        place.app->get_options([](const CLI::Option* option) { return option->get_positional(); });
    if (positionals.empty()) return candidates.addCommands(*place.app);
    candidates.addValues(*positionals[std::min(place.positionals, positionals.size() - 1)]);
}

bool printCompletions(const CLI::App& app, int argc, const char* const* argv) {
    if (argc < 2 || std::string_view(argv[1]) != "--complete") return false;
    complete(app, {argv + 2, argv + argc}, std::cout);
    return true;
}

}  // namespace telvora
