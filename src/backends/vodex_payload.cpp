// SPDX-License-Identifier: Apache-2.0
//
// A handle is the address of a PropertyList. The functions neither allocate nor throw, because foreign code
// calls them.
#include "backends/vodex_payload.h"

namespace telvora {

namespace {

using Handle = const telvora_vodex_value*;

const PropertyList* listOf(Handle handle) {
    return reinterpret_cast<const PropertyList*>(handle);
}

// The handle's content if it is of that type, else null.
template <typename T>
const T* contentOf(Handle handle) {
    return handle != nullptr ? listOf(handle)->getIf<T>() : nullptr;
}

template <typename T>
T numberOf(Handle handle) {
    const T* number = contentOf<T>(handle);
    return number != nullptr ? *number : T{};
}

telvora_vodex_kind kindOf(Handle handle) {
    if (handle == nullptr) return TELVORA_VODEX_NONE;
    // In the order of PropertyList::Value.
    static constexpr telvora_vodex_kind kKinds[] = {
        TELVORA_VODEX_BOOLEAN, TELVORA_VODEX_INTEGER, TELVORA_VODEX_UNSIGNED,
        TELVORA_VODEX_REAL,    TELVORA_VODEX_STRING,  TELVORA_VODEX_DATA,
        TELVORA_VODEX_DATE,    TELVORA_VODEX_ARRAY,   TELVORA_VODEX_DICTIONARY};
    static_assert(std::size(kKinds) == std::variant_size_v<PropertyList::Value>);
    return kKinds[listOf(handle)->value().index()];
}

int booleanOf(Handle handle) {
    return numberOf<bool>(handle) ? 1 : 0;
}

double realOf(Handle handle) {
    const Date* date = contentOf<Date>(handle);
    return date != nullptr ? date->seconds : numberOf<double>(handle);
}

const char* bytesOf(Handle handle, size_t* length) {
    const std::string* bytes = contentOf<std::string>(handle);
    if (const Data* data = contentOf<Data>(handle)) bytes = &data->bytes;
    if (length != nullptr) *length = bytes != nullptr ? bytes->size() : 0;
    return bytes != nullptr ? bytes->c_str() : nullptr;
}

// The entry at an index of a dictionary, or null.
const Dictionary::Entry* entryAt(Handle handle, size_t index) {
    const Dictionary* dictionary = contentOf<Dictionary>(handle);
    return dictionary != nullptr && index < dictionary->size()
               ? &dictionary->begin()[static_cast<long>(index)]
               : nullptr;
}

size_t countOf(Handle handle) {
    if (const Array* array = contentOf<Array>(handle)) return array->size();
    const Dictionary* dictionary = contentOf<Dictionary>(handle);
    return dictionary != nullptr ? dictionary->size() : 0;
}

Handle elementOf(Handle handle, size_t index) {
    const Array* array = contentOf<Array>(handle);
    if (array != nullptr && index < array->size()) return vodexValue(&(*array)[index]);
    const Dictionary::Entry* entry = entryAt(handle, index);
    return vodexValue(entry != nullptr ? &entry->value : nullptr);
}

const char* keyOf(Handle handle, size_t index) {
    const Dictionary::Entry* entry = entryAt(handle, index);
    return entry != nullptr ? entry->key.c_str() : nullptr;
}

Handle valueForKey(Handle handle, const char* key) {
    const Dictionary* dictionary = contentOf<Dictionary>(handle);
    return vodexValue(dictionary != nullptr && key != nullptr ? dictionary->find(key) : nullptr);
}

}  // namespace

const telvora_vodex_host& vodexHost() {
    static constexpr telvora_vodex_host kHost{sizeof(telvora_vodex_host),
                                              kindOf,
                                              booleanOf,
                                              numberOf<int64_t>,
                                              numberOf<uint64_t>,
                                              realOf,
                                              bytesOf,
                                              countOf,
                                              elementOf,
                                              keyOf,
                                              valueForKey};
    return kHost;
}

const telvora_vodex_value* vodexValue(const PropertyList* value) {
    return reinterpret_cast<const telvora_vodex_value*>(value);
}

}  // namespace telvora
