// SPDX-License-Identifier: Apache-2.0
//
// Completion of command lines in shells. Their scripts, beside this file, know nothing of a program: they run
// it as `PROGRAM --complete WORD...`, so that what a program offers is what it takes.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace telvora {

// When the arguments of main() begin with --complete, prints what may stand in the place of the last WORD and
// returns true: candidates that begin with it, one a line with a tab and a description after each that has
// one; or the line "<files>" where a text goes whose values nobody knows.
bool printCompletions(const CLI::App& app, int argc, const char* const* argv);

// The same, for the words after the program's name.
void complete(const CLI::App& app, std::vector<std::string> words, std::ostream& out);

}  // namespace telvora
