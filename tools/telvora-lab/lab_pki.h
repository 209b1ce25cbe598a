// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's keys: a certificate authority and a server certificate, so that TLS is verified as in the
// field, and the key that signs bags. All are made at each start, unless the directory has a key for bags. No
// secret exists outside of the directory.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <tl/expected.hpp>

#include "platform/digest.h"

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
    // An RSA key in the file bag-key.pem of `directory` signs the bags, if the file exists. Fails with a
    // reason if a file can't be written or the key can't be used.
    static tl::expected<LabPki, std::string> make(const std::filesystem::path& directory,
                                                  const std::string& bundleVersion = "8.1.2");

    std::string caFile() const { return directory_ / "ca.pem"; }
    std::string serverCertificateFile() const { return directory_ / "server.pem"; }
    std::string serverKeyFile() const { return directory_ / "server-key.pem"; }
    std::string frameworkDirectory() const { return directory_ / "framework"; }

    // The key whose public half is in the framework directory. Callable from any thread.
    const RsaPrivateKey& bagKey() const { return *bagKey_; }

  private:
    LabPki(std::filesystem::path directory, RsaPrivateKey bagKey)
        : directory_(std::move(directory)), bagKey_(std::make_shared<RsaPrivateKey>(std::move(bagKey))) {}

    std::filesystem::path directory_;
    std::shared_ptr<const RsaPrivateKey> bagKey_;
};

}  // namespace telvora::lab
