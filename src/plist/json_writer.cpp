// SPDX-License-Identifier: Apache-2.0
#include "plist/json_writer.h"

namespace telvora {

namespace {

template <JsonLayout layout>
std::string write(const PropertyList& value) {
    JsonWriter<layout> writer;
    writer.value(value);
    return writer.text();
}

}  // namespace

std::string jsonText(const PropertyList& value, JsonLayout layout) {
    return layout == JsonLayout::pretty ? write<JsonLayout::pretty>(value)
                                        : write<JsonLayout::compact>(value);
}

}  // namespace telvora
