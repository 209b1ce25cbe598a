// SPDX-License-Identifier: Apache-2.0
//
// What telvora-bag does. Each command returns the exit status: 0 done, 1 the signature does not verify, 2 bad
// input or a file that can't be read or written, with a message on standard error.
#pragma once

#include <string>

namespace telvora::bag {

// Makes a key pair: the private key as PEM, readable by its owner alone, and the public key as DER, which
// goes into the client framework as publicKey.der.
int keygen(const std::string& privateKeyFile, const std::string& publicKeyFile, int bits);

// Signs a property list, whose bytes are kept as they are.
int sign(const std::string& privateKeyFile, const std::string& bagFile, const std::string& signedFile);

// Checks a signed document and says which bag it holds.
int verify(const std::string& publicKeyFile, const std::string& signedFile);

// Prints the inner bag of a signed document, or a bag that is not signed, as XML. Checks no signature.
int show(const std::string& file);

}  // namespace telvora::bag
