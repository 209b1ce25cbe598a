// SPDX-License-Identifier: Apache-2.0
#include "backends/event_record.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace telvora {

namespace {

constexpr size_t kFieldCount = 16;

// Rounds to minutes, so that the start time of a session does not identify it.
int64_t roundedStart(double startTimeStamp) {
    return std::isfinite(startTimeStamp) ? static_cast<int64_t>(startTimeStamp) / 60 * 60 : 0;
}

void setIfPresent(Dictionary& dictionary, std::string_view key, const std::optional<std::string>& value) {
    if (value) dictionary.set(key, *value);
}

// Sets the entries in the order of their keys, so that each set() appends.
Dictionary dictionaryOf(const EventFields& fields, size_t spareEntries) {
    const int64_t start = roundedStart(fields.startTimeStamp);
    const double elapsed = TelvoradUtil::secondsFromTimeValue(fields.timestamp) - fields.startTimeStamp;
    const double clientTime = TelvoradUtil::sanitizeNumber(static_cast<double>(start) + elapsed);

    Dictionary result;
    result.reserve(kFieldCount + spareEntries);
    setIfPresent(result, "_build", fields.build);
    result.set("_clientTS", clientTime);
    result.set("_clientVersion", fields.clientVersion);
    result.set("_eventNumber", fields.eventNumber);
    result.set("_internal", fields.internal ? 1 : 0);
    result.set("_method", fields.method);
    setIfPresent(result, "_osVersion", fields.osVersion);
    setIfPresent(result, "_productFamily", fields.productFamily);
    setIfPresent(result, "_productModel", fields.productModel);
    result.set("_reportVers", fields.reportVersion);
    result.set("_sender", fields.sender);
    if (fields.numericSessionID) {
        result.set("_sessionID", *fields.numericSessionID);
    } else {
        setIfPresent(result, "_sessionID", fields.combinedSessionID);
    }
    result.set("_startTS", start);
    result.set("_status", fields.status);
    result.set("_timezoneOffset", fields.timezoneOffset);
    result.set("eventTime", clientTime);
    return result;
}

const size_t kTextInside = std::string().capacity();  // characters in the object itself

// A block of the heap, with the allocator's own bytes.
constexpr size_t blockSize(size_t bytes) {
    constexpr size_t kLeast = 32, kUnit = 16;
    return bytes == 0 ? 0 : std::max(kLeast, (bytes + sizeof(size_t) + kUnit - 1) / kUnit * kUnit);
}

// Bytes that a text occupies beside the std::string object.
size_t approximateSize(const std::string& text) {
    return text.capacity() > kTextInside ? blockSize(text.capacity() + 1) : 0;
}

size_t approximateSize(const PropertyList& value) {
    if (const auto* text = value.getIf<std::string>()) return approximateSize(*text);
    if (const auto* data = value.getIf<Data>()) return approximateSize(data->bytes);
    if (const auto* dictionary = value.getIf<Dictionary>()) return telvora::approximateSize(*dictionary);
    const auto* array = value.getIf<Array>();
    if (array == nullptr) return 0;
    return std::accumulate(
        array->begin(), array->end(), blockSize(array->capacity() * sizeof(PropertyList)),
        [](size_t sum, const PropertyList& element) { return sum + approximateSize(element); });
}

}  // namespace

Dictionary newEventDictfromPayload(const std::optional<Dictionary>& payload, const EventFields& fields,
                                   const Dictionary* userInfo) {
    Dictionary own = dictionaryOf(fields, userInfo != nullptr ? userInfo->size() : 0);
    if (userInfo != nullptr) own.merge(*userInfo);
    return payload ? Dictionary::merged(*payload, std::move(own)) : own;
}

size_t approximateSize(const Dictionary& dictionary) {
    size_t size = blockSize(dictionary.size() * sizeof(Dictionary::Entry));
    for (const Dictionary::Entry& entry : dictionary)
        size += approximateSize(entry.key) + approximateSize(entry.value);
    return size;
}

}  // namespace telvora
