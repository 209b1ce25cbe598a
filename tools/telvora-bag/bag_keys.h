// SPDX-License-Identifier: Apache-2.0
//
// Every key of a bag: its type, what its absence means and what it is for. `lint` checks bags against this
// table, and storebag(5) prints it.
#pragma once

#include <span>
#include <string_view>

namespace telvora::bag {

enum class ValueType {
    text,
    base64,   // text
    list,     // text: elements between commas, nothing trimmed
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

// How a type is called.
std::string_view nameOf(ValueType type);

// How much a missing key matters.
enum class Need { optional, advised, required };

struct DictionaryKind;

struct KeyRule {
    std::string_view key;
    ValueType type;
    Need need;
    std::string_view absent;   // what holds where the key is absent
    std::string_view meaning;  // whole sentences
    // Of numbers, the range outside of which a value is a mistake.
    double lowest = 0;
    double highest = 0;  // both 0: every number will do
    // Of dictionaries.
    const DictionaryKind* content = nullptr;
    // What holds where the value is of another type; empty: the same as where it is absent.
    std::string_view mistyped = {};
};

// A kind of dictionary that a bag is made of.
struct DictionaryKind {
    std::string_view name;
    std::span<const KeyRule> keys;
    std::string_view unknown;  // what becomes of any other key

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

// All of them, from the outside in.
std::span<const DictionaryKind* const> allDictionaryKinds();

}  // namespace telvora::bag
