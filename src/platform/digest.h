// SPDX-License-Identifier: Apache-2.0
//
// Digests and RSA signatures, on OpenSSL's EVP. Thread-safe: no shared state.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace telvora {

std::array<uint8_t, 32> sha256(std::string_view bytes);

// 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

// The least length of an RSA key; shorter ones can be broken.
inline constexpr int kMinRsaBits = 2048;

// An EVP_PKEY of OpenSSL.
struct FreeKey {
    void operator()(void* key) const;
};
using OwnedKey = std::unique_ptr<void, FreeKey>;

// Checks RSASSA-PKCS1-v1_5 signatures (RFC 8017) over SHA-1 digests.
class RsaPublicKey {
  public:
    struct Refusal {
        std::string reason;
        bool isTooShort = false;  // a key of fewer than kMinRsaBits; otherwise the bytes are no such key
    };
    // From a DER-encoded PKCS#1 RSAPublicKey or SubjectPublicKeyInfo. Fails with a reason.
    static tl::expected<RsaPublicKey, Refusal> fromDer(std::string_view der);

    bool verifySha1(std::string_view message, std::string_view signature) const;
    // Identifies the key object in log lines.
    const void* identity() const { return key_.get(); }

  private:
    explicit RsaPublicKey(void* key) : key_(key) {}
    OwnedKey key_;
};

// Makes such signatures, for tools and tests.
class RsaPrivateKey {
  public:
    // A new key; `bits` is at least kMinRsaBits. Fails with a reason.
    static tl::expected<RsaPrivateKey, std::string> generate(int bits);
    // From the text of a PEM file (PKCS#8 or PKCS#1, not encrypted), likewise. Fails with a reason.
    static tl::expected<RsaPrivateKey, std::string> fromPem(std::string_view pem);

    std::string toPem() const;                             // PKCS#8
    std::string publicKeyToDer() const;                    // SubjectPublicKeyInfo
    std::string signSha1(std::string_view message) const;  // empty on failure

  private:
    explicit RsaPrivateKey(void* key) : key_(key) {}
    OwnedKey key_;
};

}  // namespace telvora
