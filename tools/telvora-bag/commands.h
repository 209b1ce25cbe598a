// SPDX-License-Identifier: Apache-2.0
//
// The commands of telvora-bag. Each returns the exit status (documents.h) and writes errors to standard
// error. An output file is written completely or not at all.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "telvora-bag/dry_run.h"
#include "telvora-bag/lint.h"

namespace telvora::bag {

// Makes a key pair: the private key as PEM with mode 0600, and the public key as DER, which the client
// framework holds as publicKey.der. Existing files are overwritten only with `force`.
int keygen(const std::string& privateKeyFile, const std::string& publicKeyFile, int bits, bool force);

// Signs a bag. A property list is signed byte by byte; JSON becomes an XML property list first. With `lints`,
// prints the findings about the bag to standard error, and does not sign a bag with errors.
// `write` writes the signed document.
using WriteDocument =
    std::function<tl::expected<void, std::string>(const std::string& path, std::string_view document)>;
int sign(const std::string& privateKeyFile, const std::string& bagFile, const std::string& signedFile,
         bool lints, const WriteDocument& write);

// Signs a bag and puts it in the place of a published one, which goes to the history beside it. The new
// file's date is later than the old one's by a second at least.
int publish(const std::string& privateKeyFile, const std::string& bagFile, const std::string& publishedFile,
            bool lints);
// Publishes the last document of the history again, with a later date. The present one is set aside, so that
// a further call goes back further.
int rollback(const std::string& publishedFile);

// Prints for which sessions the second bag has another effect, and the differences.
int diff(const std::string& oldFile, const std::string& newFile);

// Prints how a device reads a bag server's answers, and which of them mislead it.
int probe(const std::string& url, const std::string& publicKeyFile, const std::string& caFile);

// Verifies a signed document and prints the version and digests of its bag.
int verify(const std::string& publicKeyFile, const std::string& signedFile);

// Prints the inner bag of a signed document, or an unsigned bag, as XML. Checks no signature.
int show(const std::string& file);

// Prints the findings about a bag, signed or not, one line or one JSON object each.
int lint(const std::string& file, bool json);
// The findings as lines for people.
std::string textOf(const std::vector<Finding>& findings);

struct ExplainOptions {
    std::string file;
    std::string environment = "release";  // a name or a number
    std::optional<std::string> deviceFile;
    std::optional<std::string> eventsFile;
    bool log = false;
    Scenario scenario;  // `environment`, `device` and `country` are set from the options above
};

// Prints the effect of a bag, signed or not, on a session, and the outcome of recorded reports.
int explain(const ExplainOptions& options);

}  // namespace telvora::bag
