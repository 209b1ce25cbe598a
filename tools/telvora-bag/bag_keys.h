// SPDX-License-Identifier: Apache-2.0
//
// Every key of a bag: its type, its default and its meaning. `lint` checks bags against this table, and
// storebag(5) prints it.
#pragma once

#include <span>
#include <string_view>

namespace telvora::bag {

enum class ValueType {
    text,
    base64,   // text
    list,     // text: elements between commas, not trimmed
    names,    // a list whose elements are compared whole
    url,      // text
    address,  // text: IPv4
    version,  // text: up to three numbers between dots
    number,
    numeral,  // a number; text counts as the integer that it starts with
    flag,     // a number or a boolean
    boolean,
    numerals,  // an array of them
    texts,     // an array of them
    dictionary,
    dictionaries,  // an array of them
    anything,
};

// The name of a type in messages and in storebag(5).
std::string_view nameOf(ValueType type);

// How much a missing key matters.
enum class Need { optional, advised, required };

struct DictionaryKind;

struct KeyRule {
    std::string_view key;
    ValueType type;
    Need need;
    std::string_view absent;   // the effect of an absent key
    std::string_view meaning;  // whole sentences
    // For numbers: a value outside of this range is a mistake.
    double lowest = 0;
    double highest = 0;  // both 0: no limits
    // For dictionaries.
    const DictionaryKind* content = nullptr;
    // The effect of a value of another type. Empty: the same as `absent`.
    std::string_view mistyped = {};
};

// One kind of dictionary in a bag.
struct DictionaryKind {
    std::string_view name;
    std::span<const KeyRule> keys;
    std::string_view unknown;  // the effect of any other key

    const KeyRule* find(std::string_view key) const;
};

extern const DictionaryKind kSignedDocument;
extern const DictionaryKind kBag;
extern const DictionaryKind kSection;
extern const DictionaryKind kHttpPost;
extern const DictionaryKind kClient;
extern const DictionaryKind kFilter;
extern const DictionaryKind kCountryThreshold;
extern const DictionaryKind kDashboard;
extern const DictionaryKind kUploadServer;
extern const DictionaryKind kVodex;
extern const DictionaryKind kJoulemark;

// All kinds, outermost first.
std::span<const DictionaryKind* const> allDictionaryKinds();

}  // namespace telvora::bag
