// SPDX-License-Identifier: Apache-2.0
#include "platform/digest.h"

#include <nettle/asn1.h>
#include <nettle/rsa.h>
#include <nettle/sha1.h>
#include <nettle/sha2.h>

#include "util/hexadecimal.h"

namespace telvora {

namespace {

// Keys over this length would make the check of one signature slow.
constexpr unsigned kMaxRsaBits = 16384;
// rsaEncryption, 1.2.840.113549.1.1.1 (RFC 8017), as the content of a DER object identifier.
constexpr std::string_view kRsaEncryption = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01";

const uint8_t* asBytes(std::string_view text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

struct Integer {
    explicit Integer(std::string_view bytes) {
        nettle_mpz_init_set_str_256_u(value, bytes.size(), asBytes(bytes));
    }
    ~Integer() { mpz_clear(value); }
    Integer(const Integer&) = delete;
    Integer& operator=(const Integer&) = delete;
    mpz_t value;
};

bool readKey(asn1_der_iterator& at, rsa_public_key& key) {
    return rsa_public_key_from_der_iterator(&key, kMaxRsaBits, &at) != 0 &&
           asn1_der_iterator_next(&at) == ASN1_ITERATOR_END;
}

bool isRsa(asn1_der_iterator& algorithm) {
    asn1_der_iterator name{};
    return algorithm.type == ASN1_SEQUENCE &&
           asn1_der_decode_constructed(&algorithm, &name) == ASN1_ITERATOR_PRIMITIVE &&
           name.type == ASN1_IDENTIFIER &&
           std::string_view(reinterpret_cast<const char*>(name.data), name.length) == kRsaEncryption;
}

// A SubjectPublicKeyInfo (RFC 5280): the algorithm, and a bit string that contains the RSAPublicKey.
bool readKeyWithAlgorithm(asn1_der_iterator& document, rsa_public_key& key) {
    asn1_der_iterator at{};
    asn1_der_iterator content{};
    return document.type == ASN1_SEQUENCE &&
           asn1_der_decode_constructed(&document, &at) == ASN1_ITERATOR_CONSTRUCTED && isRsa(at) &&
           asn1_der_iterator_next(&at) == ASN1_ITERATOR_PRIMITIVE && at.type == ASN1_BITSTRING &&
           asn1_der_decode_bitstring(&at, &content) == ASN1_ITERATOR_CONSTRUCTED && readKey(content, key) &&
           asn1_der_iterator_next(&at) == ASN1_ITERATOR_END &&
           asn1_der_iterator_next(&document) == ASN1_ITERATOR_END;
}

}  // namespace

std::array<uint8_t, 32> sha256(std::string_view bytes) {
    sha256_ctx context;
    sha256_init(&context);
    sha256_update(&context, bytes.size(), asBytes(bytes));
    std::array<uint8_t, 32> digest{};
    sha256_digest(&context, digest.size(), digest.data());
    return digest;
}

std::string sha256Hex(std::string_view bytes) {
    const std::array<uint8_t, 32> digest = sha256(bytes);
    return hexText({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

std::optional<std::string> whyTooShort(int bits) {
    if (bits >= kMinRsaBits) return std::nullopt;
    return "an RSA key of " + std::to_string(bits) + " bits; it must have " + std::to_string(kMinRsaBits) +
           " at least";
}

void RsaPublicKey::FreeKey::operator()(rsa_public_key* key) const {
    rsa_public_key_clear(key);
    delete key;
}

tl::expected<RsaPublicKey, RsaPublicKey::Refusal> RsaPublicKey::fromDer(std::string_view der) {
    OwnedKey key(new rsa_public_key);
    rsa_public_key_init(key.get());
    const auto isReadBy = [&](auto read) {
        asn1_der_iterator document{};
        return asn1_der_iterator_first(&document, der.size(), asBytes(der)) == ASN1_ITERATOR_CONSTRUCTED &&
               read(document, *key);
    };
    if (!isReadBy(readKey) && !isReadBy(readKeyWithAlgorithm)) {
        return tl::make_unexpected(Refusal{"no RSA public key in DER form"});
    }
    if (auto why = whyTooShort(static_cast<int>(mpz_sizeinbase(key->n, 2)))) {
        return tl::make_unexpected(Refusal{std::move(*why), true});
    }
    return RsaPublicKey(std::move(key));
}

bool RsaPublicKey::verifySha1(std::string_view message, std::string_view signature) const {
    if (signature.size() != key_->size) return false;
    sha1_ctx context;
    sha1_init(&context);
    sha1_update(&context, message.size(), asBytes(message));
    const Integer number(signature);
    return rsa_sha1_verify(key_.get(), &context, number.value) == 1;
}

}  // namespace telvora
