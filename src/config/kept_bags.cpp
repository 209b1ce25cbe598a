// SPDX-License-Identifier: Apache-2.0
#include "config/kept_bags.h"

#include <sys/stat.h>

#include <system_error>

#include "async/work_pool.h"
#include "plist/property_list_format.h"
#include "util/atomic_file.h"
#include "util/log.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

constexpr char kUrl[] = "url";
constexpr char kDocument[] = "document";
constexpr char kLastModified[] = "lastModified";
constexpr char kFetchTime[] = "fetchTime";
constexpr char kMaxAge[] = "maxAge";
constexpr char kFetchSuccessful[] = "fetchSuccessful";

}  // namespace

std::optional<KeptBag> KeptBags::load(const std::string& name, const std::string& url) const {
    std::error_code error;
    if (!std::filesystem::exists(fileOf(name), error)) return std::nullopt;
    const BlockingSection blocking;
    const auto content = readRegularFile(fileOf(name), kMaxDocumentBytes);
    const auto parsed = content ? parsePropertyList(*content) : tl::unexpected(content.error());
    const auto* bag = parsed ? parsed->getIf<Dictionary>() : nullptr;
    if (bag == nullptr) {
        TELVORA_LOG(kLogWarning, "KeptBags(load): %s: %s", fileOf(name).c_str(),
                    parsed ? "no dictionary" : parsed.error().c_str());
        return std::nullopt;
    }
    const std::string* from = bag->string(kUrl);
    if (from == nullptr || *from != url) return std::nullopt;
    KeptBag kept{.url = url};
    if (const PropertyList* document = bag->find(kDocument)) {
        if (const auto* data = document->getIf<Data>()) kept.document = data->bytes;
    }
    if (const std::string* date = bag->string(kLastModified)) kept.lastModified = *date;
    kept.fetchTime = bag->real(kFetchTime).value_or(0);
    kept.maxAge = static_cast<int32_t>(bag->integer(kMaxAge).value_or(0));
    const PropertyList* successful = bag->find(kFetchSuccessful);
    kept.fetchSuccessful = successful != nullptr && successful->boolValue();
    return kept;
}

void KeptBags::save(const std::string& name, const KeptBag& bag) const {
    Dictionary content{{kUrl, bag.url},
                       {kFetchTime, bag.fetchTime},
                       {kMaxAge, bag.maxAge},
                       {kFetchSuccessful, bag.fetchSuccessful}};
    if (!bag.document.empty()) content.set(kDocument, Data{bag.document});
    if (bag.lastModified) content.set(kLastModified, *bag.lastModified);
    const auto text = serializePropertyList(PropertyList(std::move(content)), PropertyListFormat::binary);
    if (!text) {
        TELVORA_LOG(kLogWarning, "KeptBags(save): %s: %s", fileOf(name).c_str(), text.error().c_str());
        return;
    }
    const BlockingSection blocking;
    mkdir(directory_.c_str(), 0700);
    if (const auto written = replaceFile(fileOf(name), *text); !written) {
        TELVORA_LOG(kLogWarning, "KeptBags(save): %s: %s", fileOf(name).c_str(), written.error().c_str());
    }
}

bool KeptBags::removeAll() const {
    std::error_code error;
    return std::filesystem::remove_all(directory_, error) > 0;
}

}  // namespace telvora
