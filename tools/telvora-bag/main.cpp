// SPDX-License-Identifier: Apache-2.0
//
// telvora-bag: the tool for authors of bags.
#include <CLI/CLI.hpp>
#include <iostream>
#include <map>
#include <string>

#include "completion/program.h"
#include "config/client_type.h"
#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"

namespace {

constexpr char kFooter[] =
    "A bag is a property list, XML or binary, or JSON. A file named '-' is standard input or output.\n"
    "Exit status: 0 done; 1 the signature does not verify, lint, diff or probe has findings, or sign found errors; 2 a wrong command line, "
    "input that can't be read, or output that can't be written. No file is written partially.";

CLI::App* addExplain(CLI::App& app, telvora::bag::ExplainOptions& options) {
    const auto yesOrNo = CLI::CheckedTransformer(std::map<std::string, bool>{{"yes", true}, {"no", false}});
    telvora::bag::Scenario& scenario = options.scenario;

    CLI::App* explain = app.add_subcommand(
        "explain", "Print the effect of a bag on a session and a device, with the reasons");
    explain->add_option("file", options.file, "The bag, signed or not")->required();
    explain->add_option("--client-type", scenario.clientType, "The client type, 0 to 18")
        ->required()
        ->check(CLI::Range(0, telvora::kLastClientType));
    explain
        ->add_option("--environment", options.environment,
                     "development, zandor_internal, seed, release, or its number")
        ->capture_default_str();
    explain->add_option("--client-name", scenario.clientName, "The client name; default: none");
    explain->add_option("--service-name", scenario.serviceName, "The service name; default: none");
    explain->add_flag("!--no-user-info-required", scenario.requireUserInfo,
                      "The session does not require user info: its reports leave without the user's consent, "
                      "and no condition or filter of the bag applies");
    explain->add_flag("--batch", scenario.batch, "The client asks for batches");
    explain->add_option("--device", options.deviceFile, "The device's properties, as in device.plist");
    explain->add_option("--country", scenario.country,
                        "The country's code; default: that of the device, else unknown");
    explain->add_option("--consent", scenario.consent, "Whether the user shares diagnostics, yes or no")
        ->transform(yesOrNo)
        ->default_str("no");
    explain->add_option("--draw", scenario.draw, "The random sampling factor, 0 to 1")
        ->check(CLI::Range(0.0, 1.0))
        ->capture_default_str();
    explain->add_option("--framework", scenario.framework, "The version of the client framework")
        ->capture_default_str();
    explain->add_option("--events", options.eventsFile,
                        "Recorded reports, one JSON object a line as 'telvoractl session' reads them");
    explain->add_flag("--log", options.log, "Print all log lines of the daemon, too");
    return explain;
}

// The status, unless the output was lost.
int finish(int status) {
    if (status == telvora::bag::kBadInput || std::cout.flush()) return status;
    return telvora::bag::complain("standard output can't be written");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace telvora;
    int bits = 2048;
    bool json = false;
    bool force = false;
    bool noLint = false;
    std::string privateKey;
    std::string publicKey;
    std::string input;
    std::string output;
    std::string caFile;

    CLI::App app("Makes, signs, checks and explains storebags.");
    app.require_subcommand(1);
    app.footer(kFooter);

    CLI::App* keygen = app.add_subcommand("keygen", "Make a key pair for signing bags");
    keygen->add_option("--key", privateKey, "Where the private key goes (PEM)")->required();
    keygen->add_option("--public", publicKey, "Where the public key goes (DER)")->required();
    keygen->add_option("--bits", bits, "Length of the key")
        ->check(CLI::Range(2048, 8192))
        ->capture_default_str();
    keygen->add_flag("--force", force, "Overwrite existing files: the old key is lost");

    CLI::App* sign = app.add_subcommand("sign", "Lint and sign a bag, and print its version and checksums");
    sign->add_option("--key", privateKey, "The private key (PEM)")->required();
    sign->add_option("bag", input, "The bag")->required();
    sign->add_option("signed", output, "Where the signed document goes")->required();
    sign->add_flag("--no-lint", noLint, "Do not look for mistakes first");

    CLI::App* verify = app.add_subcommand("verify", "Check the signature of a signed document");
    verify->add_option("--public", publicKey, "The public key (DER)")->required();
    verify->add_option("signed", input, "The signed document")->required();

    CLI::App* show = app.add_subcommand("show", "Print a bag, signed or not, without checking a signature");
    show->add_option("file", input, "The document")->required();

    CLI::App* lint = app.add_subcommand("lint", "Print the mistakes in a bag, signed or not");
    lint->add_option("file", input, "The document")->required();
    lint->add_flag("--json", json, "Print the findings as JSON");

    CLI::App* publish = app.add_subcommand("publish", "Lint and sign a bag, and replace the published one");
    publish->add_option("--key", privateKey, "The private key (PEM)")->required();
    publish->add_option("bag", input, "The bag")->required();
    publish->add_option("published", output, "The file that the server serves")->required();
    publish->add_flag("--no-lint", noLint, "Do not look for mistakes first");

    CLI::App* rollback = app.add_subcommand("rollback", "Publish the document before the present one again");
    rollback->add_option("published", output, "The file that the server serves")->required();

    CLI::App* diff = app.add_subcommand("diff", "Print for which sessions another bag has another effect");
    diff->add_option("old", input, "The bag, signed or not")->required();
    diff->add_option("new", output, "The other one")->required();

    CLI::App* probe = app.add_subcommand("probe", "Print what devices make of a bag server's answers");
    probe->add_option("url", input, "The bag's address, without a query")->required();
    probe->add_option("--public", publicKey, "The public key (DER) of the devices");
    probe->add_option("--ca", caFile, "The server's authority (PEM), instead of the system's");

    bag::ExplainOptions explanation;
    CLI::App* explain = addExplain(app, explanation);
    if (const auto status = parseCommandLine(app, argc, argv, bag::kBadInput)) return *status;
    if (keygen->parsed()) return finish(bag::keygen(privateKey, publicKey, bits, force));
    if (sign->parsed()) {
        return finish(bag::sign(
            privateKey, input, output, !noLint,
            [](const auto& path, std::string_view document) { return bag::writeFile(path, document); }));
    }
    if (publish->parsed()) return finish(bag::publish(privateKey, input, output, !noLint));
    if (rollback->parsed()) return finish(bag::rollback(output));
    if (diff->parsed()) return finish(bag::diff(input, output));
    if (probe->parsed()) return finish(bag::probe(input, publicKey, caFile));
    if (verify->parsed()) return finish(bag::verify(publicKey, input));
    if (lint->parsed()) return finish(bag::lint(input, json));
    if (explain->parsed()) return finish(bag::explain(explanation));
    return finish(bag::show(input));
}
