// SPDX-License-Identifier: Apache-2.0
//
// telvora.h: values and answers.
#include <iterator>

#include "client/handles.h"

using telvora::Array;
using telvora::Data;
using telvora::Date;
using telvora::Dictionary;
using telvora::guarded;
using telvora::PropertyList;
using telvora::unwrap;
using telvora::wrap;

namespace {

telvora_value* newValue(const PropertyList& value) {
    return guarded<telvora_value*>(nullptr, [&] { return wrap(new PropertyList(value)); });
}

const Dictionary::Entry& entryAt(const Dictionary& dictionary, size_t index) {
    return *std::next(dictionary.begin(), static_cast<ptrdiff_t>(index));
}

// `make` makes the value, so that its exceptions are caught, too.
template <typename Make>
telvora_status set(telvora_value* container, const char* key, Make make) {
    return guarded(TELVORA_ERROR_RESOURCES, [&] {
        PropertyList* target = container != nullptr ? unwrap(container) : nullptr;
        if (target == nullptr) return TELVORA_ERROR_INVALID;
        // Changes elements in place; the type of the value stays.
        auto* dictionary = const_cast<Dictionary*>(target->getIf<Dictionary>());
        auto* array = const_cast<Array*>(target->getIf<Array>());
        if (key != nullptr && dictionary != nullptr) {
            dictionary->set(key, make());
        } else if (key == nullptr && array != nullptr) {
            array->push_back(make());
        } else {
            return TELVORA_ERROR_INVALID;
        }
        return TELVORA_OK;
    });
}

template <typename T>
const T* in(const telvora_value* value) {
    return value != nullptr ? unwrap(value)->getIf<T>() : nullptr;
}

}  // namespace

telvora_value* telvora_dictionary_new() {
    return newValue(Dictionary());
}

telvora_value* telvora_array_new() {
    return newValue(Array());
}

telvora_value* telvora_value_copy(const telvora_value* value) {
    return value != nullptr ? newValue(*unwrap(value)) : nullptr;
}

void telvora_value_free(telvora_value* value) {
    delete unwrap(value);
}

telvora_status telvora_set_bool(telvora_value* container, const char* key, bool value) {
    return set(container, key, [&] { return PropertyList(value); });
}

telvora_status telvora_set_int(telvora_value* container, const char* key, int64_t value) {
    return set(container, key, [&] { return PropertyList(value); });
}

telvora_status telvora_set_double(telvora_value* container, const char* key, double value) {
    return set(container, key, [&] { return PropertyList(value); });
}

telvora_status telvora_set_string(telvora_value* container, const char* key, const char* value) {
    if (value == nullptr) return TELVORA_ERROR_INVALID;
    return set(container, key, [&] { return PropertyList(value); });
}

telvora_status telvora_set_data(telvora_value* container, const char* key, const void* bytes, size_t size) {
    if (bytes == nullptr && size != 0) return TELVORA_ERROR_INVALID;
    return set(container, key, [&] {
        return PropertyList(Data{size == 0 ? "" : std::string(static_cast<const char*>(bytes), size)});
    });
}

telvora_status telvora_set_date(telvora_value* container, const char* key, double seconds) {
    return set(container, key, [&] { return PropertyList(Date{seconds}); });
}

telvora_status telvora_set_value(telvora_value* container, const char* key, const telvora_value* value) {
    if (value == nullptr) return TELVORA_ERROR_INVALID;
    return set(container, key, [&] { return *unwrap(value); });
}

telvora_type telvora_value_type(const telvora_value* value) {
    struct Type {
        telvora_type operator()(bool) const { return TELVORA_TYPE_BOOL; }
        telvora_type operator()(int64_t) const { return TELVORA_TYPE_INT; }
        telvora_type operator()(uint64_t) const { return TELVORA_TYPE_INT; }
        telvora_type operator()(double) const { return TELVORA_TYPE_DOUBLE; }
        telvora_type operator()(const std::string&) const { return TELVORA_TYPE_STRING; }
        telvora_type operator()(const Data&) const { return TELVORA_TYPE_DATA; }
        telvora_type operator()(const Date&) const { return TELVORA_TYPE_DATE; }
        telvora_type operator()(const Array&) const { return TELVORA_TYPE_ARRAY; }
        telvora_type operator()(const Dictionary&) const { return TELVORA_TYPE_DICTIONARY; }
    };
    return std::visit(Type{}, unwrap(value)->value());
}

size_t telvora_value_count(const telvora_value* value) {
    if (const auto* dictionary = in<Dictionary>(value)) return dictionary->size();
    if (const auto* array = in<Array>(value)) return array->size();
    if (const auto* text = in<std::string>(value)) return text->size();
    if (const auto* data = in<Data>(value)) return data->bytes.size();
    return 0;
}

const telvora_value* telvora_value_at(const telvora_value* value, size_t index) {
    const auto* dictionary = in<Dictionary>(value);
    if (dictionary != nullptr && index < dictionary->size()) return wrap(&entryAt(*dictionary, index).value);
    const auto* array = in<Array>(value);
    return array != nullptr && index < array->size() ? wrap(&(*array)[index]) : nullptr;
}

const char* telvora_value_key_at(const telvora_value* value, size_t index) {
    const auto* dictionary = in<Dictionary>(value);
    const bool there = dictionary != nullptr && index < dictionary->size();
    return there ? entryAt(*dictionary, index).key.c_str() : nullptr;
}

const telvora_value* telvora_value_find(const telvora_value* value, const char* key) {
    const auto* dictionary = in<Dictionary>(value);
    return dictionary != nullptr && key != nullptr ? wrap(dictionary->find(key)) : nullptr;
}

bool telvora_value_bool(const telvora_value* value) {
    return value != nullptr && unwrap(value)->boolValue();
}

int64_t telvora_value_int(const telvora_value* value) {
    return value != nullptr && unwrap(value)->isNumber() ? unwrap(value)->integerValue().value_or(0) : 0;
}

double telvora_value_double(const telvora_value* value) {
    if (const auto* date = in<Date>(value)) return date->seconds;
    return value != nullptr ? unwrap(value)->realValue().value_or(0) : 0;
}

const char* telvora_value_string(const telvora_value* value) {
    const auto* text = in<std::string>(value);
    return text != nullptr ? text->c_str() : nullptr;
}

const void* telvora_value_data(const telvora_value* value, size_t* size) {
    const auto* data = in<Data>(value);
    if (size != nullptr) *size = data != nullptr ? data->bytes.size() : 0;
    return data != nullptr ? data->bytes.data() : nullptr;
}

telvora_status telvora_answer_status(const telvora_answer* answer) {
    return unwrap(answer)->status;
}

const char* telvora_answer_message(const telvora_answer* answer) {
    return unwrap(answer)->message.c_str();
}

const telvora_value* telvora_answer_value(const telvora_answer* answer) {
    const auto& value = unwrap(answer)->value;
    return value ? wrap(&*value) : nullptr;
}

bool telvora_answer_error(const telvora_answer* answer, const char** domain, int32_t* code,
                          const char** description) {
    const auto& error = unwrap(answer)->error;
    if (!error) return false;
    if (domain != nullptr) *domain = error->domain.c_str();
    if (code != nullptr) *code = error->code;
    if (description != nullptr) *description = error->description.c_str();
    return true;
}
