// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/lab_pki.h"

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <system_error>

#include "plist/property_list_format.h"
#include "telvora-lab/certificates.h"

namespace telvora::lab {
namespace {

constexpr int kBagKeyBits = 2048;

bool writeFile(const std::filesystem::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    return file.good();
}

tl::expected<RsaPrivateKey, std::string> bagKeyIn(const std::filesystem::path& directory) {
    std::ifstream file(directory / "bag-key.pem");
    if (!file) return RsaPrivateKey::generate(kBagKeyBits);
    return RsaPrivateKey::fromPem(std::string(std::istreambuf_iterator<char>(file), {}));
}

}  // namespace

tl::expected<LabPki, std::string> LabPki::make(const std::filesystem::path& directory,
                                               const std::string& bundleVersion) {
    std::error_code error;
    std::filesystem::create_directories(directory / "framework", error);
    if (error) return tl::make_unexpected(directory.string() + ": " + error.message());

    auto bagKey = bagKeyIn(directory);
    if (!bagKey) return tl::make_unexpected(bagKey.error());
    auto info =
        serializePropertyList(Dictionary{{"CFBundleVersion", bundleVersion}}, PropertyListFormat::xml);
    if (!info) return tl::make_unexpected(info.error());
    const Certificates certificates = makeCertificates();
    if (certificates.server.empty()) return tl::make_unexpected(std::string("no certificate could be made"));

    LabPki pki(directory, std::move(*bagKey));
    const std::filesystem::path framework = pki.frameworkDirectory();
    const std::pair<std::filesystem::path, const std::string> files[] = {
        {pki.caFile(), certificates.authority},
        {pki.serverCertificateFile(), certificates.server},
        {pki.serverKeyFile(), certificates.serverKey},
        {framework / "Info.plist", *info},
        {framework / "publicKey.der", pki.bagKey().publicKeyToDer()},
    };
    for (const auto& [path, content] : files) {
        if (!writeFile(path, content)) return tl::make_unexpected(path.string() + ": can't be written");
    }
    chmod(pki.serverKeyFile().c_str(), S_IRUSR | S_IWUSR);
    return pki;
}

}  // namespace telvora::lab
