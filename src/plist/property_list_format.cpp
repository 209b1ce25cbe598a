// SPDX-License-Identifier: Apache-2.0
#include "plist/property_list_format.h"

#include "plist/property_list_limits.h"
#include "plist/property_list_reader.h"
#include "plist/property_list_writer.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

// Checks a value and counts its objects (keys included), whose number determines the size of a reference.
struct Counter {
    size_t objects = 0;
    size_t depth = 0;
    const char* error = nullptr;

    void count(const PropertyList& value) {
        if (error == nullptr) std::visit(*this, value.value());
    }
    void countText(const std::string& text) {
        ++objects;
        if (error == nullptr) error = whyNoText(text);
    }

    template <typename Plain>
    void operator()(const Plain&) {
        ++objects;
    }
    void operator()(const std::string& text) { countText(text); }
    void operator()(const Date& date) {
        ++objects;
        if (!isDate(date.seconds)) error = kWhyNoDate;
    }
    void operator()(const Array& array) {
        enter();
        for (const PropertyList& item : array)
            count(item);
        --depth;
    }
    void operator()(const Dictionary& dictionary) {
        enter();
        for (const auto& [key, value] : dictionary) {
            countText(key);
            count(value);
        }
        --depth;
    }
    void enter() {
        ++objects;
        if (++depth > kMaxDocumentDepth) error = kWhyTooDeep;
    }
};

}  // namespace

tl::expected<PropertyList, std::string> parsePropertyList(std::string_view document) {
    if (document.size() > kMaxDocumentBytes) return tl::make_unexpected(kWhyTooLong);
    return document.starts_with("bplist00") ? readBinaryPropertyList(document)
                                            : readXmlPropertyList(document);
}

bool exceedsPropertyListLimit(std::string_view reason) {
    return reason == kWhyTooLong || reason == kWhyTooDeep || reason == kWhyTooMany || reason == kWhyTooLarge;
}

tl::expected<PropertyList, std::string> readPropertyListFile(const std::filesystem::path& path) {
    return readRegularFile(path, kMaxDocumentBytes + 1).and_then(parsePropertyList);
}

tl::expected<std::string, std::string> serializePropertyList(const PropertyList& value,
                                                             PropertyListFormat format) {
    Counter counter;
    counter.count(value);
    if (counter.error != nullptr) return tl::make_unexpected(counter.error);
    if (format == PropertyListFormat::xml) return writeXmlPropertyList(value);
    return writeBinaryPropertyList(value, counter.objects);
}

}  // namespace telvora
