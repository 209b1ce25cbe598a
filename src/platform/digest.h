// SPDX-License-Identifier: Apache-2.0
//
// Digests, and the check of RSA signatures. They use Nettle: the libcrypto of OpenSSL would add 4 MB to a
// daemon that has no session. Thread-safe: no shared state.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <utility>

struct rsa_public_key;  // Nettle's

namespace telvora {

std::array<uint8_t, 32> sha256(std::string_view bytes);

// 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

// The least length of an RSA key; shorter ones can be broken.
inline constexpr int kMinRsaBits = 2048;
// Why a key of this length is refused, or std::nullopt.
std::optional<std::string> whyTooShort(int bits);

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
    struct FreeKey {
        void operator()(rsa_public_key* key) const;
    };
    using OwnedKey = std::unique_ptr<rsa_public_key, FreeKey>;

    explicit RsaPublicKey(OwnedKey key) : key_(std::move(key)) {}
    OwnedKey key_;
};

}  // namespace telvora
