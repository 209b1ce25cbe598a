// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's keys: a certificate authority and a server certificate, so that TLS is verified as in the
// field, and the key that signs bags. All are made at each start, or kept in the directory. No secret exists
// outside of it.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <tl/expected.hpp>

#include "platform/private_key.h"

namespace telvora::lab {

class LabPki {
  public:
    // Makes the keys and writes into `directory` (created if absent):
    //
    //     ca.pem            the authority's certificate, for SSL_CERT_FILE
    //     server.pem        the certificate for 127.0.0.1, ::1 and localhost
    //     server-key.pem    its key
    //     framework/        for TELVORA_FRAMEWORK_DIR: Info.plist with CFBundleVersion, publicKey.der
    //
    // An RSA key in the file bag-key.pem of `directory` signs the bags, if the file exists.
    //
    // With `keep`, the keys of an earlier call are used again, and bag-key.pem and ca-key.pem are written,
    // too. The server's certificate is renewed a week before it ends after a year, or for another `address`,
    // an IPv4 address that it is valid for. Files with private keys have mode 0600. Fails with a reason if a
    // file can't be written or a key can't be used.
    static tl::expected<LabPki, std::string> make(const std::filesystem::path& directory,
                                                  const std::string& address = "127.0.0.1",
                                                  bool keep = false);

    std::string caFile() const { return directory_ / "ca.pem"; }
    std::string serverCertificateFile() const { return directory_ / "server.pem"; }
    std::string serverKeyFile() const { return directory_ / "server-key.pem"; }
    std::string frameworkDirectory() const { return directory_ / "framework"; }

    // The key whose public half is in the framework directory. Callable from any thread.
    const RsaPrivateKey& bagKey() const { return *bagKey_; }

  private:
    LabPki(std::filesystem::path directory, RsaPrivateKey bagKey)
        : directory_(std::move(directory)), bagKey_(std::make_shared<RsaPrivateKey>(std::move(bagKey))) {}

    tl::expected<void, std::string> writeCertificates(const std::string& address, bool keep) const;

    std::filesystem::path directory_;
    std::shared_ptr<const RsaPrivateKey> bagKey_;
};

}  // namespace telvora::lab
