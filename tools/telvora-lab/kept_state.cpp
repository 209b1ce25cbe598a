// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/kept_state.h"

#include <algorithm>

#include "plist/property_list_format.h"
#include "util/atomic_file.h"

namespace telvora::lab {
namespace {

constexpr char kStateFile[] = "lab.plist";
constexpr char kBags[] = "bags";
constexpr char kSuffix[] = ".plist";
constexpr size_t kMaxNameLength = 64;
constexpr int64_t kMaxPort = 65535;

constexpr std::pair<const char*, int Ports::*> kPorts[] = {{"bagsPort", &Ports::bags},
                                                           {"reportsPort", &Ports::reports},
                                                           {"logDataPort", &Ports::logData},
                                                           {"uploadsPort", &Ports::uploads},
                                                           {"dashboardPort", &Ports::dashboard}};
constexpr char kPagePort[] = "pagePort";
constexpr char kToken[] = "token";

tl::expected<Dictionary, std::string> readDictionary(const std::filesystem::path& file) {
    const auto value = readPropertyListFile(file);
    if (!value) return tl::unexpected(file.string() + ": " + value.error());
    const Dictionary* content = value->getIf<Dictionary>();
    if (content == nullptr) return tl::unexpected(file.string() + ": not a dictionary");
    return *content;
}

tl::expected<void, std::string> write(const std::filesystem::path& file, const Dictionary& content) {
    const auto document = serializePropertyList(content, PropertyListFormat::xml);
    const auto written = document ? replaceFile(file, *document) : tl::unexpected(document.error());
    if (!written) return tl::unexpected(file.string() + ": " + written.error());
    return {};
}

int portIn(const Dictionary& content, const char* key) {
    const int64_t port = content.integer(key).value_or(0);
    return port > 0 && port <= kMaxPort ? static_cast<int>(port) : 0;
}

}  // namespace

bool isBagName(std::string_view name) {
    const auto isAllowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '_' || c == '-';
    };
    return !name.empty() && name.size() <= kMaxNameLength && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isAllowed);
}

tl::expected<KeptState, std::string> readKeptState(const std::filesystem::path& directory) {
    KeptState state;
    std::error_code error;
    if (std::filesystem::exists(directory / kStateFile, error)) {
        const auto content = readDictionary(directory / kStateFile);
        if (!content) return tl::unexpected(content.error());
        for (const auto& [key, port] : kPorts)
            state.ports.*port = portIn(*content, key);
        state.pagePort = portIn(*content, kPagePort);
        if (const std::string* token = content->string(kToken)) state.token = *token;
    }
    for (const auto& file : std::filesystem::directory_iterator(directory / kBags, error)) {
        if (file.path().extension() != kSuffix || !isBagName(file.path().stem().string())) continue;
        auto bag = readDictionary(file.path());
        if (!bag) return tl::unexpected(bag.error());
        state.bags.emplace(file.path().stem(), std::move(*bag));
    }
    return state;
}

tl::expected<void, std::string> writeKeptState(const std::filesystem::path& directory,
                                               const KeptState& state) {
    Dictionary content{{kPagePort, state.pagePort}, {kToken, state.token}};
    for (const auto& [key, port] : kPorts)
        content.set(key, state.ports.*port);
    return write(directory / kStateFile, content);
}

tl::expected<void, std::string> writeKeptBag(const std::filesystem::path& directory, const std::string& name,
                                             const Dictionary& bag) {
    if (!isBagName(name)) return tl::unexpected(name + ": no name for a kept bag");
    std::error_code ignored;
    std::filesystem::create_directories(directory / kBags, ignored);
    return write(directory / kBags / (name + kSuffix), bag);
}

}  // namespace telvora::lab
