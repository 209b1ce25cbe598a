// SPDX-License-Identifier: Apache-2.0
#include "platform/private_key.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <utility>

#include "platform/digest.h"

namespace telvora {

namespace {

struct FreeOpenSsl {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(BIO* bio) const { BIO_free(bio); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeOpenSsl>;

const unsigned char* asBytes(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

unsigned char* asBytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

EVP_PKEY* asKey(void* key) {
    return static_cast<EVP_PKEY*>(key);
}

// The newest error in OpenSSL's queue of this thread; empties the queue.
std::string takeError() {
    const unsigned long code = ERR_peek_last_error();
    char text[256] = "unknown OpenSSL error";
    if (code != 0) ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return text;
}

std::string bioContent(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

}  // namespace

void RsaPrivateKey::FreeKey::operator()(void* key) const {
    EVP_PKEY_free(asKey(key));
}

tl::expected<RsaPrivateKey, std::string> RsaPrivateKey::generate(int bits) {
    if (auto why = whyTooShort(bits)) return tl::make_unexpected(std::move(*why));
    EVP_PKEY* key = EVP_RSA_gen(static_cast<unsigned>(bits));
    if (key == nullptr) return tl::make_unexpected(takeError());
    return RsaPrivateKey(key);
}

tl::expected<RsaPrivateKey, std::string> RsaPrivateKey::fromPem(std::string_view pem) {
    const Owned<BIO> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(std::min<size_t>(pem.size(), 1 << 20))));
    if (!bio) return tl::make_unexpected(takeError());
    // Without this callback OpenSSL would ask for the password of an encrypted key at the terminal.
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr));
    if (!key) {
        ERR_clear_error();  // numbers that name no cause
        return tl::make_unexpected("no private key in PEM form without a password");
    }
    if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) return tl::make_unexpected("not an RSA key");
    if (auto why = whyTooShort(EVP_PKEY_get_bits(key.get()))) return tl::make_unexpected(std::move(*why));
    return RsaPrivateKey(key.release());
}

std::string RsaPrivateKey::toPem() const {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PKCS8PrivateKey(bio.get(), asKey(key_.get()), nullptr, nullptr, 0, nullptr, nullptr);
    return bioContent(bio.get());
}

std::string RsaPrivateKey::publicKeyToDer() const {
    const Owned<BIO> bio(BIO_new(BIO_s_mem()));
    i2d_PUBKEY_bio(bio.get(), asKey(key_.get()));
    return bioContent(bio.get());
}

std::string RsaPrivateKey::signSha1(std::string_view message) const {
    const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
    size_t length = static_cast<size_t>(EVP_PKEY_get_size(asKey(key_.get())));
    std::string signature(length, '\0');
    EVP_DigestSignInit(context.get(), nullptr, EVP_sha1(), nullptr, asKey(key_.get()));
    if (EVP_DigestSign(context.get(), asBytes(signature), &length, asBytes(message), message.size()) != 1) {
        ERR_clear_error();
        return {};
    }
    signature.resize(length);
    return signature;
}

}  // namespace telvora
