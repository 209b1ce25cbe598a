// SPDX-License-Identifier: Apache-2.0
//
// telvora-lab: the laboratory as a program, for manual trials and for tests in other languages.
#include "completion/program.h"
#include "telvora-lab/collect_command.h"
#include "telvora-lab/serve_command.h"

int main(int argc, char** argv) {
    using namespace telvora::lab;
    constexpr int kUsageError = 2;
    CLI::App app("The servers that telvorad talks to, on this machine, for tests and demonstrations.");
    app.require_subcommand(1);
    ServeArguments serveArguments;
    addServeCommand(app, serveArguments);
    CollectArguments collectArguments;
    const CLI::App* collectCommand = addCollectCommand(app, collectArguments);
    if (const auto status = telvora::parseCommandLine(app, argc, argv, kUsageError)) return *status;
    return collectCommand->parsed() ? collect(collectArguments) : serve(serveArguments);
}
