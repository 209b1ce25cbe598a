// SPDX-License-Identifier: Apache-2.0
//
// Keys that sign bags, for tools and tests. They use OpenSSL, which the daemon therefore does not link.
// Thread-safe: no shared state.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace telvora {

// Makes RSASSA-PKCS1-v1_5 signatures (RFC 8017) over SHA-1 digests.
class RsaPrivateKey {
  public:
    // A new key; `bits` is at least kMinRsaBits. Fails with a reason.
    static tl::expected<RsaPrivateKey, std::string> generate(int bits);
    // From the text of a PEM file (PKCS#8 or PKCS#1, not encrypted), at least as long. Fails with a reason.
    static tl::expected<RsaPrivateKey, std::string> fromPem(std::string_view pem);

    std::string toPem() const;                             // PKCS#8
    std::string publicKeyToDer() const;                    // SubjectPublicKeyInfo
    std::string signSha1(std::string_view message) const;  // empty on failure

  private:
    struct FreeKey {
        void operator()(void* key) const;
    };
    explicit RsaPrivateKey(void* key) : key_(key) {}
    std::unique_ptr<void, FreeKey> key_;  // an EVP_PKEY of OpenSSL
};

}  // namespace telvora
