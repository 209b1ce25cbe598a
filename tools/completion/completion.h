// SPDX-License-Identifier: Apache-2.0
//
// Completion of command lines in shells. The scripts beside this file know no program: they run it as
// `PROGRAM --complete WORD...`, so that completion and parser agree.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace telvora {

// If the arguments of main() begin with --complete, prints the candidates for the last WORD and returns true.
// The output has one candidate a line, each with a tab and a description if it has one; or the line "<files>"
// if the word is a text without a list of values.
bool printCompletions(const CLI::App& app, int argc, const char* const* argv);

// Does the same for the words after the program's name.
void complete(const CLI::App& app, std::vector<std::string> words, std::ostream& out);

}  // namespace telvora
