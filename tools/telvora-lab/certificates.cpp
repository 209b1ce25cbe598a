// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/certificates.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <ctime>
#include <memory>

namespace telvora::lab {
namespace {

constexpr long kDaySeconds = 86400;

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO_free>>;

Key makeKey() {
    char curve[] = "P-256";
    return Key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve));
}

std::string contents(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::string toPem(X509* certificate) {
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate);
    return contents(bio.get());
}

std::string toPem(EVP_PKEY* key) {
    Bio bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    return contents(bio.get());
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    if (extension) X509_add_ext(certificate, extension.get(), -1);
}

// A certificate for `key`, without extensions and signature.
Certificate draft(EVP_PKEY* key, const char* commonName, int days) {
    constexpr long kClockSkewSeconds = 3600;
    Certificate certificate(X509_new());
    X509_set_version(certificate.get(), X509_VERSION_3);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7f;  // a serial number is positive
    std::unique_ptr<BIGNUM, Deleter<BN_free>> number(BN_bin2bn(serial, sizeof serial, nullptr));
    BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate.get()));
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kClockSkewSeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kDaySeconds);
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    return certificate;
}

Key keyFrom(const std::string& pem) {
    Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

Certificate certificateFrom(const std::string& pem) {
    Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

}  // namespace

KeyAndCertificate makeAuthority(int days) {
    const Key key = makeKey();
    if (!key) return {};
    Certificate authority = draft(key.get(), "telvora-lab authority", days);
    X509_set_issuer_name(authority.get(), X509_get_subject_name(authority.get()));
    addExtension(authority.get(), authority.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(authority.get(), authority.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(authority.get(), authority.get(), NID_subject_key_identifier, "hash");
    X509_sign(authority.get(), key.get(), EVP_sha256());
    return {toPem(key.get()), toPem(authority.get())};
}

KeyAndCertificate makeServerCertificate(const KeyAndCertificate& authority, const std::string& address,
                                        int days) {
    const Key authorityKey = keyFrom(authority.key);
    const Certificate issuer = certificateFrom(authority.certificate);
    const Key key = makeKey();
    if (!authorityKey || !issuer || !key) return {};
    Certificate server = draft(key.get(), "localhost", days);
    X509_set_issuer_name(server.get(), X509_get_subject_name(issuer.get()));
    addExtension(server.get(), issuer.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(server.get(), issuer.get(), NID_ext_key_usage, "serverAuth");
    addExtension(server.get(), issuer.get(), NID_authority_key_identifier, "keyid");
    addExtension(server.get(), issuer.get(), NID_subject_alt_name,
                 ("IP:127.0.0.1,IP:0:0:0:0:0:0:0:1,DNS:localhost,IP:" + address).c_str());
    X509_sign(server.get(), authorityKey.get(), EVP_sha256());
    return {toPem(key.get()), toPem(server.get())};
}

bool isUsable(const std::string& certificate, const KeyAndCertificate& authority, const std::string& address,
              int days) {
    const Certificate server = certificateFrom(certificate);
    const Key authorityKey = keyFrom(authority.key);
    if (!server || !authorityKey || X509_verify(server.get(), authorityKey.get()) != 1) return false;
    time_t latest = time(nullptr) + days * kDaySeconds;
    return X509_check_ip_asc(server.get(), address.c_str(), 0) == 1 &&
           X509_cmp_time(X509_get0_notAfter(server.get()), &latest) > 0;
}

}  // namespace telvora::lab
