// SPDX-License-Identifier: Apache-2.0
//
// What telvora-bag does. Each command returns the exit status (documents.h); what is wrong goes to standard
// error. Files that are written are written whole or not at all.
#pragma once

#include <optional>
#include <string>

#include "telvora-bag/trial.h"

namespace telvora::bag {

// Makes a key pair: the private key as PEM, readable by its owner alone, and the public key as DER, which
// goes into the client framework as publicKey.der.
int keygen(const std::string& privateKeyFile, const std::string& publicKeyFile, int bits);

// Signs a bag. The bytes of a property list are kept as they are, JSON becomes XML.
int sign(const std::string& privateKeyFile, const std::string& bagFile, const std::string& signedFile);

// Checks a signed document and says which bag it holds.
int verify(const std::string& publicKeyFile, const std::string& signedFile);

// Prints the inner bag of a signed document, or a bag that is not signed, as XML. Checks no signature.
int show(const std::string& file);

// Prints what is wrong with a bag, signed or not, a line or a JSON object each.
int lint(const std::string& file, bool json);

struct ExplainOptions {
    std::string file;
    std::string environment = "release";  // a name or a number
    std::optional<std::string> deviceFile;
    std::optional<std::string> eventsFile;
    bool log = false;
    Circumstances circumstances;  // the rest of them
};

// Prints what a bag, signed or not, means for a session, and what would become of recorded reports.
int explain(const ExplainOptions& options);

}  // namespace telvora::bag
