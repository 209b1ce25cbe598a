// SPDX-License-Identifier: Apache-2.0
//
// telvora-bag: the tool of those who write bags.
#include <CLI/CLI.hpp>
#include <string>

#include "commands.h"

int main(int argc, char** argv) {
    constexpr int kUsageError = 2;
    int bits = 2048;
    std::string privateKey;
    std::string publicKey;
    std::string input;
    std::string output;

    CLI::App app("Makes, signs and checks storebags.\nA file named '-' is standard input or output.");
    app.require_subcommand(1);

    CLI::App* keygen = app.add_subcommand("keygen", "Make a key pair for signing bags");
    keygen->add_option("--key", privateKey, "Where the private key goes (PEM)")->required();
    keygen->add_option("--public", publicKey, "Where the public key goes (DER)")->required();
    keygen->add_option("--bits", bits, "Length of the key")
        ->check(CLI::Range(2048, 8192))
        ->capture_default_str();

    CLI::App* sign = app.add_subcommand("sign", "Sign a bag");
    sign->add_option("--key", privateKey, "The private key (PEM)")->required();
    sign->add_option("bag", input, "The bag: a property list, XML or binary")->required();
    sign->add_option("signed", output, "Where the signed document goes")->required();

    CLI::App* verify =
        app.add_subcommand("verify", "Check a signed document; exit status 1: it does not verify");
    verify->add_option("--public", publicKey, "The public key (DER)")->required();
    verify->add_option("signed", input, "The signed document")->required();

    CLI::App* show = app.add_subcommand("show", "Print a bag, signed or not, without checking a signature");
    show->add_option("file", input, "The document")->required();

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kUsageError;
    }
    using namespace telvora;
    if (keygen->parsed()) return bag::keygen(privateKey, publicKey, bits);
    if (sign->parsed()) return bag::sign(privateKey, input, output);
    if (verify->parsed()) return bag::verify(publicKey, input);
    return bag::show(input);
}
