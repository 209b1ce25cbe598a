// SPDX-License-Identifier: Apache-2.0
//
// Walks a bag along the table of its keys.
#include "telvora-bag/lint.h"

#include <algorithm>
#include <numeric>

#include "telvora-bag/documents.h"
#include "telvora-bag/lint_rules.h"
#include "util/letter_case.h"

namespace telvora::bag {

namespace {

void lintDictionary(const std::string& path, const Dictionary& dictionary, const DictionaryKind& kind,
                    Findings& findings);

struct TypeName {
    const char* operator()(bool) const { return "a boolean"; }
    const char* operator()(const std::string&) const { return "text"; }
    const char* operator()(const Data&) const { return "data"; }
    const char* operator()(const Date&) const { return "a date"; }
    const char* operator()(const Array&) const { return "an array"; }
    const char* operator()(const Dictionary&) const { return "a dictionary"; }
    template <typename Number>
    const char* operator()(Number) const {
        return "a number";
    }
};

std::string wrongType(const PropertyList& value, ValueType type) {
    return std::string("is ") + std::visit(TypeName(), value.value()) +
           ", should be: " + std::string(nameOf(type));
}

bool isOfType(const PropertyList& value, ValueType type) {
    using enum ValueType;
    switch (type) {
        case number:
        case numeral:
            return value.isNumber() && !value.is<bool>();
        case flag:
            return value.isNumber();
        case boolean:
            return value.is<bool>();
        case numerals:
        case texts:
        case dictionaries:
            return value.is<Array>();
        case dictionary:
            return value.is<Dictionary>();
        case anything:
            return true;
        default:
            return value.is<std::string>();
    }
}

// The number that the daemon's own accessors read where a value of this type is expected.
std::optional<double> numberUsed(const PropertyList& value, ValueType type) {
    if (type == ValueType::numeral) {
        const auto integer = value.integerValue();
        return integer ? std::optional(static_cast<double>(*integer)) : std::nullopt;
    }
    return type == ValueType::number || type == ValueType::flag ? value.realValue() : std::nullopt;
}

void lintRange(const std::string& path, double number, const KeyRule& rule, Findings& findings) {
    if (rule.lowest == rule.highest) return;
    if (number >= rule.lowest && number <= rule.highest) return;
    findings.error(path, numberText(number) + " is outside of " + numberText(rule.lowest) + " to " +
                             numberText(rule.highest));
}

void lintNumber(const std::string& path, const PropertyList& value, double used, ValueType type,
                const KeyRule& rule, Findings& findings) {
    if (!isOfType(value, type)) {
        findings.warn(path, wrongType(value, type) + "; counts as " + numberText(used));
    } else if (value.realValue() != used) {
        findings.warn(path, numberText(value.realValue().value_or(0)) + " counts as " + numberText(used));
    }
    lintRange(path, used, rule, findings);
}

// Checks the elements of an array, which must all have one type.
void lintElements(const std::string& path, const Array& array, const KeyRule& rule, ValueType type,
                  Findings& findings) {
    for (size_t i = 0; i < array.size(); ++i) {
        const std::optional<double> number = numberUsed(array[i], type);
        if (number) {
            lintNumber(element(path, i), array[i], *number, type, rule, findings);
        } else if (!isOfType(array[i], type)) {
            findings.error(element(path, i), wrongType(array[i], type));
        } else if (type == ValueType::dictionary) {
            lintDictionary(element(path, i), *array[i].getIf<Dictionary>(), *rule.content, findings);
        }
    }
}

void lintValue(const std::string& path, const PropertyList& value, const KeyRule& rule, Findings& findings) {
    using enum ValueType;
    if (const auto used = numberUsed(value, rule.type)) {
        return lintNumber(path, value, *used, rule.type, rule, findings);
    }
    if (!isOfType(value, rule.type)) {
        const std::string effect = rule.mistyped.empty() ? "counts as absent: " + std::string(rule.absent)
                                                         : std::string(rule.mistyped);
        findings.error(path, wrongType(value, rule.type) + "; " + effect);
        return;
    }
    switch (rule.type) {
        case numerals:
            return lintElements(path, *value.getIf<Array>(), rule, numeral, findings);
        case texts:
            return lintElements(path, *value.getIf<Array>(), rule, text, findings);
        case dictionaries:
            return lintElements(path, *value.getIf<Array>(), rule, dictionary, findings);
        case dictionary:
            return lintDictionary(path, *value.getIf<Dictionary>(), *rule.content, findings);
        case boolean:
        case anything:
            return;
        default:
            return lintText(path, *value.getIf<std::string>(), rule.type, findings);
    }
}

// The edit distance of two texts: letters added, dropped or exchanged.
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t exchanged = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string suggestion(std::string_view key, const DictionaryKind& kind) {
    constexpr size_t kMaxLength = 64;
    if (key.size() > kMaxLength) return "";
    const std::string lower = lowerCase(key);
    const auto away = [&lower](const KeyRule& rule) { return distance(lower, lowerCase(rule.key)); };
    const auto nearest = std::ranges::min_element(kind.keys, {}, away);
    if (nearest == kind.keys.end() || away(*nearest) > nearest->key.size() / 4) return "";
    return "; did you mean " + inQuotes(nearest->key) + "?";
}

void lintDictionary(const std::string& path, const Dictionary& dictionary, const DictionaryKind& kind,
                    Findings& findings) {
    const std::string prefix = path.empty() ? "" : path + "/";
    for (const auto& [key, value] : dictionary) {
        if (const KeyRule* rule = kind.find(key)) {
            lintValue(prefix + key, value, *rule, findings);
        } else {
            findings.error(prefix + key,
                           "the unknown key " + std::string(kind.unknown) + suggestion(key, kind));
        }
    }
    for (const KeyRule& rule : kind.keys) {
        if (rule.need == Need::optional || dictionary.contains(rule.key)) continue;
        findings.add({prefix + std::string(rule.key),
                      rule.need == Need::required ? Severity::error : Severity::warning,
                      "absent: " + std::string(rule.absent)});
    }
    if (&kind == &kClient) lintEntry(path, dictionary, findings);
    if (&kind == &kHttpPost) {
        if (const Array* clients = dictionary.array("clients"))
            lintEntries(prefix + "clients", *clients, findings);
    }
}

}  // namespace

std::vector<Finding> lintBag(const Dictionary& bag) {
    Findings findings;
    lintDictionary("", bag, kBag, findings);
    return findings.take();
}

std::vector<Finding> lintDocument(const Dictionary& document) {
    if (!isSignedDocument(document)) return lintBag(document);
    Findings findings;
    lintDictionary("", document, kSignedDocument, findings);
    std::vector<Finding> all = findings.take();
    const auto parts = takeApart(document);
    if (!parts) return all;
    const auto bag = parsePlist("bag", parts->inner);
    if (!bag) {
        all.push_back({"bag", Severity::error, bag.error()});
        return all;
    }
    for (Finding& finding : lintBag(*bag))
        all.push_back(std::move(finding));
    return all;
}

}  // namespace telvora::bag
