// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/lab_pki.h"

#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "plist/property_list_format.h"
#include "telvora-lab/certificates.h"
#include "util/atomic_file.h"

namespace telvora::lab {
namespace {

constexpr int kBagKeyBits = 2048;
constexpr char kBundleVersion[] = "8.1.2";

// Days that certificates are valid for.
constexpr int kOnce = 1;
constexpr int kKeptAuthority = 3650;
constexpr int kKeptServer = 365;
constexpr int kRenewal = 7;

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A file that others may read.
bool publish(const std::filesystem::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    return file.good();
}

tl::expected<RsaPrivateKey, std::string> bagKeyIn(const std::filesystem::path& file, bool keep) {
    std::error_code ignored;
    if (std::filesystem::exists(file, ignored)) {
        auto key = RsaPrivateKey::fromPem(contentOf(file));
        return key ? std::move(key) : tl::unexpected(file.string() + ": " + key.error());
    }
    auto key = RsaPrivateKey::generate(kBagKeyBits);
    if (!key || !keep) return key;
    if (auto written = replaceFile(file, key->toPem()); !written) {
        return tl::unexpected(file.string() + ": " + written.error());
    }
    return key;
}

}  // namespace

tl::expected<LabPki, std::string> LabPki::make(const std::filesystem::path& directory,
                                               const std::string& address, bool keep) {
    std::error_code error;
    std::filesystem::create_directories(directory / "framework", error);
    if (error) return tl::unexpected(directory.string() + ": " + error.message());
    auto bagKey = bagKeyIn(directory / "bag-key.pem", keep);
    if (!bagKey) return tl::unexpected(bagKey.error());
    const LabPki pki(directory, std::move(*bagKey));
    if (auto written = pki.writeCertificates(address, keep); !written) {
        return tl::unexpected(written.error());
    }

    const auto info =
        serializePropertyList(Dictionary{{"CFBundleVersion", kBundleVersion}}, PropertyListFormat::xml);
    const std::filesystem::path framework = pki.frameworkDirectory();
    if (!info || !publish(framework / "Info.plist", *info) ||
        !publish(framework / "publicKey.der", pki.bagKey().publicKeyToDer())) {
        return tl::unexpected(framework.string() + ": can't be written");
    }
    return pki;
}

tl::expected<void, std::string> LabPki::writeCertificates(const std::string& address, bool keep) const {
    const std::filesystem::path authorityKeyFile = directory_ / "ca-key.pem";
    KeyAndCertificate authority;
    if (keep) authority = {contentOf(authorityKeyFile), contentOf(caFile())};
    if (keep && authority.valid() &&
        isUsable(contentOf(serverCertificateFile()), authority, address, kRenewal))
        return {};

    const bool isNew = !authority.valid();
    if (isNew) authority = makeAuthority(keep ? kKeptAuthority : kOnce);
    const KeyAndCertificate server = makeServerCertificate(authority, address, keep ? kKeptServer : kOnce);
    if (!server.valid()) return tl::unexpected(directory_.string() + ": no certificate could be made");
    if (isNew && keep) {
        if (auto written = replaceFile(authorityKeyFile, authority.key); !written) return written;
    }
    if (auto written = replaceFile(serverKeyFile(), server.key); !written) return written;
    if (!publish(caFile(), authority.certificate) || !publish(serverCertificateFile(), server.certificate)) {
        return tl::unexpected(directory_.string() + ": can't be written");
    }
    return {};
}

}  // namespace telvora::lab
