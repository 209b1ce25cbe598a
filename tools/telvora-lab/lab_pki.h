// SPDX-License-Identifier: Apache-2.0
//
// The laboratory's keys: a certificate authority and a server certificate of its own, so that TLS is verified
// here exactly as in the field, and the key that signs bags. All are made anew at each start, unless the
// folder has a key for bags; nothing secret outlives the folder.
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
    //     ca.pem            the authority's certificate: what SSL_CERT_FILE names
    //     server.pem        the certificate for 127.0.0.1, ::1 and localhost
    //     server-key.pem    its key
    //     framework/        what TELVORA_FRAMEWORK_DIR names: Info.plist with CFBundleVersion, publicKey.der
    //
    // If `directory` has a file bag-key.pem, that RSA key signs the bags. Fails with a reason when a file
    // can't be written or the key can't be used.
    static tl::expected<LabPki, std::string> make(const std::filesystem::path& directory,
                                                  const std::string& bundleVersion = "8.1.2");

    std::string caFile() const { return directory_ / "ca.pem"; }
    std::string serverCertificateFile() const { return directory_ / "server.pem"; }
    std::string serverKeyFile() const { return directory_ / "server-key.pem"; }
    std::string frameworkDirectory() const { return directory_ / "framework"; }

    // The key whose public half stands in the framework folder. Safe from any thread.
    const RsaPrivateKey& bagKey() const { return *bagKey_; }

  private:
    LabPki(std::filesystem::path directory, RsaPrivateKey bagKey)
        : directory_(std::move(directory)), bagKey_(std::make_shared<RsaPrivateKey>(std::move(bagKey))) {}

    std::filesystem::path directory_;
    std::shared_ptr<const RsaPrivateKey> bagKey_;
};

}  // namespace telvora::lab
