// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>

namespace telvora {

// Prints the answer to --help or --version and returns the exit status; std::nullopt for all other arguments,
// which the daemon does not read.
std::optional<int> answerArguments(int argc, const char* const* argv);

// If a person started the daemon, whose standard error is a terminal, explains there that it listens without
// a service manager. To be called before the sockets are opened.
void explainOnTerminal(const std::filesystem::path& runtimeDirectory);

}  // namespace telvora
