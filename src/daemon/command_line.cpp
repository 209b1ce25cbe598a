// SPDX-License-Identifier: Apache-2.0
#include "daemon/command_line.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace telvora {

namespace {

constexpr char kHelp[] =
    "telvorad, the reporting daemon: receives reports from programs on this device, and forwards those that\n"
    "a signed configuration allows.\n"
    "\n"
    "Usage: telvorad [--help | --version]\n"
    "\n"
    "It has no other options. The service manager starts it for the first program that reports:\n"
    "    systemctl status com.zandor.telvorad.socket com.zandor.telvorad.service\n"
    "    telvoractl status\n"
    "    telvoractl defaults list\n"
    "Started by hand, it listens in $RUNTIME_DIRECTORY or /run/telvora until SIGTERM or SIGINT.\n"
    "See telvorad(8), telvorad.defaults(5), telvorad.entitlements(5).\n";

}  // namespace

std::optional<int> answerArguments(int argc, const char* const* argv) {
    const std::string_view argument = argc == 2 ? argv[1] : "";
    if (argument == "--help" || argument == "-h") {
        std::fputs(kHelp, stdout);
    } else if (argument == "--version") {
        std::puts("telvorad " TELVORA_VERSION);
    } else {
        return std::nullopt;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

void explainOnTerminal(const std::filesystem::path& runtimeDirectory) {
    if (isatty(STDERR_FILENO) != 1 || std::getenv("LISTEN_FDS") != nullptr) return;
    std::fprintf(stderr,
                 "telvorad: no socket came from a service manager, so the daemon makes its own in %s. "
                 "See telvorad --help.\n",
                 runtimeDirectory.c_str());
}

}  // namespace telvora
