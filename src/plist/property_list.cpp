// SPDX-License-Identifier: Apache-2.0
#include "plist/property_list.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>

namespace telvora {

namespace {

// Negative, 0 or positive as `a` sorts before, equal to or after `b`. Most keys differ in the first byte, and
// every report compares a hundred keys: that byte is compared without a call of memcmp(3).
int compareKeys(std::string_view a, std::string_view b) {
    if (!a.empty() && !b.empty() && a.front() != b.front()) {
        return static_cast<unsigned char>(a.front()) - static_cast<unsigned char>(b.front());
    }
    return a.compare(b);
}

template <typename Entries>
auto lowerBoundIn(Entries& entries, std::string_view key) {
    return std::lower_bound(
        entries.begin(), entries.end(), key,
        [](const Dictionary::Entry& entry, std::string_view k) { return compareKeys(entry.key, k) < 0; });
}

// The number of keys in the sorted range [from, end) that the sorted `entries` lack.
template <typename Iterator>
size_t countNewKeys(const std::vector<Dictionary::Entry>& entries, Iterator from, Iterator end) {
    size_t found = 0;
    const auto total = static_cast<size_t>(end - from);
    for (auto entry = entries.begin(); entry != entries.end() && from != end;) {
        const int order = compareKeys(entry->key, (*from).key);
        found += order == 0 ? 1 : 0;
        if (order <= 0) ++entry;
        if (order >= 0) ++from;
    }
    return total - found;
}

// Both sides are sorted, so a walk from the back moves every entry once. Inserting key by key would move the
// tail for each key.
template <typename Iterator>
void mergeSorted(std::vector<Dictionary::Entry>& entries, Iterator from, Iterator end) {
    size_t left = entries.size();  // old entries that have not been moved yet
    size_t target = left + countNewKeys(entries, from, end);
    entries.resize(target);
    while (from != end) {
        const int order = left == 0 ? -1 : compareKeys(entries[left - 1].key, (*(end - 1)).key);
        --target;
        if (order >= 0) --left;
        if (order <= 0) {
            --end;
            entries[target] = *end;
        } else if (target != left) {
            entries[target] = std::move(entries[left]);
        }
    }
}

int64_t clampToInteger(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 0x1p63) return std::numeric_limits<int64_t>::max();
    if (value < -0x1p63) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    entries_.reserve(entries.size());
    for (const Entry& entry : entries)
        set(entry.key, entry.value);
}

Dictionary Dictionary::fromEntries(std::vector<Entry> entries) {
    const auto before = [](const Entry& a, const Entry& b) { return a.key < b.key; };
    if (!std::is_sorted(entries.begin(), entries.end(), before)) {
        std::stable_sort(entries.begin(), entries.end(), before);
    }
    // From behind, so that the last one of equal keys stays.
    const auto sameKey = [](const Entry& a, const Entry& b) { return a.key == b.key; };
    entries.erase(entries.begin(), std::unique(entries.rbegin(), entries.rend(), sameKey).base());
    Dictionary dictionary;
    dictionary.entries_ = std::move(entries);
    return dictionary;
}

std::vector<Dictionary::Entry>::iterator Dictionary::lowerBound(std::string_view key) {
    return lowerBoundIn(entries_, key);
}

std::vector<Dictionary::Entry>::const_iterator Dictionary::lowerBound(std::string_view key) const {
    return lowerBoundIn(entries_, key);
}

const PropertyList* Dictionary::find(std::string_view key) const {
    const auto at = lowerBound(key);
    return at != entries_.end() && at->key == key ? &at->value : nullptr;
}

PropertyList* Dictionary::find(std::string_view key) {
    return const_cast<PropertyList*>(std::as_const(*this).find(key));
}

void Dictionary::set(std::string_view key, PropertyList value) {
    // Readers and sorted sources deliver keys in order: then this is an append.
    if (entries_.empty() || compareKeys(entries_.back().key, key) < 0) {
        entries_.push_back({std::string(key), std::move(value)});
        return;
    }
    const auto at = lowerBound(key);
    if (at != entries_.end() && at->key == key) {
        at->value = std::move(value);
    } else {
        entries_.insert(at, {std::string(key), std::move(value)});
    }
}

bool Dictionary::erase(std::string_view key) {
    const auto at = lowerBound(key);
    if (at == entries_.end() || at->key != key) return false;
    entries_.erase(at);
    return true;
}

void Dictionary::merge(const Dictionary& other) {
    // Events have the keys of their user info already. To search for a few keys costs less than to walk over
    // all entries.
    if (other.size() < entries_.size() / 4) {
        size_t replaced = 0;
        for (const Entry& entry : other) {
            PropertyList* const value = find(entry.key);
            if (value == nullptr) break;
            *value = entry.value;
            ++replaced;
        }
        if (replaced == other.size()) return;
    }
    mergeSorted(entries_, other.entries_.begin(), other.entries_.end());
}

void Dictionary::merge(Dictionary&& other) {
    mergeSorted(entries_, std::make_move_iterator(other.entries_.begin()),
                std::make_move_iterator(other.entries_.end()));
}

Dictionary Dictionary::merged(const Dictionary& base, Dictionary&& over) {
    Dictionary result;
    result.reserve(base.size() + over.size());
    auto low = base.entries_.begin();
    const auto lowEnd = base.entries_.end();
    for (Entry& high : over.entries_) {
        int order = 1;
        for (; low != lowEnd && (order = compareKeys(low->key, high.key)) < 0; ++low)
            result.entries_.push_back(*low);
        if (low != lowEnd && order == 0) ++low;
        result.entries_.push_back(std::move(high));
    }
    result.entries_.insert(result.entries_.end(), low, lowEnd);
    return result;
}

void Dictionary::reserve(size_t entries) {
    entries_.reserve(entries);
}
size_t Dictionary::size() const {
    return entries_.size();
}
bool Dictionary::empty() const {
    return entries_.empty();
}
Dictionary::const_iterator Dictionary::begin() const {
    return entries_.begin();
}
Dictionary::const_iterator Dictionary::end() const {
    return entries_.end();
}

const std::string* Dictionary::string(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->getIf<std::string>() : nullptr;
}

const Dictionary* Dictionary::dictionary(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->getIf<Dictionary>() : nullptr;
}

const Array* Dictionary::array(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->getIf<Array>() : nullptr;
}

std::optional<int64_t> Dictionary::integer(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->integerValue() : std::nullopt;
}

std::optional<int64_t> Dictionary::wrappedInteger(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->wrappedInteger() : std::nullopt;
}

std::optional<double> Dictionary::real(std::string_view key) const {
    const PropertyList* value = find(key);
    return value ? value->realValue() : std::nullopt;
}

bool Dictionary::boolean(std::string_view key) const {
    const PropertyList* value = find(key);
    return value != nullptr && value->boolValue();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return a.entries_ == b.entries_;
}

PropertyList::Value PropertyList::fromUnsigned(uint64_t value) {
    if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return static_cast<int64_t>(value);
    return value;
}

bool PropertyList::isNumber() const {
    return is<bool>() || is<int64_t>() || is<uint64_t>() || is<double>();
}

std::optional<int64_t> PropertyList::integerValue() const {
    if (const auto* integer = getIf<int64_t>()) return *integer;
    if (const auto* boolean = getIf<bool>()) return *boolean ? 1 : 0;
    if (is<uint64_t>()) return std::numeric_limits<int64_t>::max();
    if (const auto* real = getIf<double>()) return clampToInteger(*real);
    if (const auto* text = getIf<std::string>()) return leadingInteger(*text);
    return std::nullopt;
}

std::optional<int64_t> PropertyList::wrappedInteger() const {
    if (const auto* integer = getIf<uint64_t>()) return static_cast<int64_t>(*integer);
    const auto* real = getIf<double>();
    if (real == nullptr || std::fabs(*real) < 0x1p63 || !std::isfinite(*real)) return integerValue();
    const auto magnitude = static_cast<uint64_t>(std::fmod(std::fabs(*real), 0x1p64));
    return static_cast<int64_t>(*real < 0 ? 0 - magnitude : magnitude);
}

std::optional<double> PropertyList::realValue() const {
    if (const auto* real = getIf<double>()) return *real;
    if (const auto* integer = getIf<int64_t>()) return static_cast<double>(*integer);
    if (const auto* integer = getIf<uint64_t>()) return static_cast<double>(*integer);
    if (const auto* boolean = getIf<bool>()) return *boolean ? 1.0 : 0.0;
    return std::nullopt;
}

bool PropertyList::boolValue() const {
    const std::optional<double> number = realValue();
    return number.has_value() && *number != 0.0;
}

std::string PropertyList::shapeDescription() const {
    struct Describe {
        std::string operator()(bool) const { return "<boolean>"; }
        std::string operator()(int64_t) const { return "<integer>"; }
        std::string operator()(uint64_t) const { return "<integer>"; }
        std::string operator()(double) const { return "<real>"; }
        std::string operator()(const std::string& s) const { return sized("string", s.size(), "bytes"); }
        std::string operator()(const Data& d) const { return sized("data", d.bytes.size(), "bytes"); }
        std::string operator()(const Date&) const { return "<date>"; }
        std::string operator()(const Array& a) const { return sized("array", a.size(), "elements"); }
        std::string operator()(const Dictionary& d) const { return sized("dictionary", d.size(), "entries"); }

        static std::string sized(const char* type, size_t size, const char* unit) {
            return "<" + std::string(type) + ", " + std::to_string(size) + " " + unit + ">";
        }
    };
    return std::visit(Describe{}, value_);
}

int64_t leadingInteger(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n')) {
        text.remove_prefix(1);
    }
    const bool negative = !text.empty() && text.front() == '-';
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range) {
        return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    }
    return value;
}

}  // namespace telvora
