// SPDX-License-Identifier: Apache-2.0
//
// The part of the command line that all programs share: --version, completion, and suggestions for misspelt
// subcommands.
#pragma once

#include <optional>

namespace CLI {
class App;
}

namespace telvora {

// "telvoractl 1.1.0", with a line feed, for programs without other options. Prints it and returns true if the
// only argument is --version.
bool printVersion(const char* program, int argc, const char* const* argv);

// Adds --version and parses the command line. Returns the exit status if the program has to end: 0 after
// --help, --version and --complete (completion.h), `badInput` after a mistake, which it prints.
std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv, int badInput);

}  // namespace telvora
