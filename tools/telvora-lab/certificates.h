// SPDX-License-Identifier: Apache-2.0
//
// X.509 certificates for the laboratory (RFC 5280), on OpenSSL.
#pragma once

#include <string>

namespace telvora::lab {

// All PEM. The private key is PKCS#8, not encrypted.
struct Certificates {
    std::string authority;
    std::string server;
    std::string serverKey;
};

// A fresh certificate authority and a certificate that it signed for 127.0.0.1, ::1 and localhost, both with
// keys on the curve P-256 and valid for a day. Empty strings only if OpenSSL fails.
Certificates makeCertificates();

}  // namespace telvora::lab
