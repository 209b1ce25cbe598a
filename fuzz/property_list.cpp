// SPDX-License-Identifier: Apache-2.0
//
// Property lists in both formats. A document that is read, written and read again is equal, and is within the
// limits of readers.
#include <algorithm>
#include <string>

#include "fuzz/target.h"
#include "plist/json_writer.h"
#include "plist/property_list_format.h"

namespace telvora::fuzz {

const double kMostSeconds = 6;  // a binary document may refer to one object very often

namespace {

struct Extent {
    size_t values = 0;
    size_t depth = 0;
};

void measure(const PropertyList& value, size_t depth, Extent& extent) {
    ++extent.values;
    if (const auto* array = value.getIf<Array>()) {
        extent.depth = std::max(extent.depth, depth + 1);
        for (const PropertyList& element : *array)
            measure(element, depth + 1, extent);
    } else if (const auto* dictionary = value.getIf<Dictionary>()) {
        extent.depth = std::max(extent.depth, depth + 1);
        for (const auto& entry : *dictionary)
            measure(entry.value, depth + 1, extent);
    }
}

// Documents are compared rather than values, as a NaN does not equal itself.
void rewrite(const PropertyList& value, PropertyListFormat format, bool mustSucceed) {
    const auto document = serializePropertyList(value, format);
    require(document || !mustSucceed, "a value that was read can be written");
    if (!document) return;
    const auto again = parsePropertyList(*document);
    require(again.has_value(), "a document that was written can be read");
    const auto second = serializePropertyList(*again, format);
    require(second && *second == *document, "a document read again is equal");
}

}  // namespace

void tryInput(std::string_view bytes) {
    const auto value = parsePropertyList(bytes);
    if (!value) return require(!value.error().empty(), "a failure has a reason");
    Extent extent;
    measure(*value, 0, extent);
    require(extent.depth <= kMaxDocumentDepth && extent.values <= kMaxDocumentValues,
            "the limits of documents hold");
    if (extent.values > 20'000) return;
    rewrite(*value, PropertyListFormat::binary, true);
    rewrite(*value, PropertyListFormat::xml, false);  // has no control characters
    require(isValidUtf8(jsonText(*value)), "JSON is UTF-8");
}

}  // namespace telvora::fuzz
