// SPDX-License-Identifier: Apache-2.0
//
// X.509 certificates for the laboratory (RFC 5280), on OpenSSL. Keys are on the curve P-256. All texts are
// PEM; private keys are PKCS#8, not encrypted. Empty strings only if OpenSSL fails, or refuses a given text.
#pragma once

#include <string>

namespace telvora::lab {

struct KeyAndCertificate {
    std::string key;
    std::string certificate;

    bool valid() const { return !key.empty() && !certificate.empty(); }
};

// A fresh certificate authority.
KeyAndCertificate makeAuthority(int days);

// A fresh key with a certificate for 127.0.0.1, ::1, localhost and the IP address `address`, signed by
// `authority`.
KeyAndCertificate makeServerCertificate(const KeyAndCertificate& authority, const std::string& address,
                                        int days);

// Whether the certificate is for that IP address, signed by `authority`, and valid for `days` from now on.
bool isUsable(const std::string& certificate, const KeyAndCertificate& authority, const std::string& address,
              int days);

}  // namespace telvora::lab
