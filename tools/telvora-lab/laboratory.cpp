// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/laboratory.h"

#include <string_view>

namespace telvora::lab {
namespace {

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
        text.replace(at, what.size(), with);
    }
}

// The placeholders in a bag and their values.
struct Places {
    std::vector<std::pair<const char*, std::string>> inStrings;
    std::vector<std::pair<const char*, PropertyList>> wholeStrings;
};

PropertyList filledIn(const PropertyList& value, const Places& places) {
    if (const auto* text = value.getIf<std::string>()) {
        for (const auto& [place, content] : places.wholeStrings) {
            if (*text == place) return content;
        }
        std::string result = *text;
        for (const auto& [place, content] : places.inStrings)
            replaceAll(result, place, content);
        return result;
    }
    if (const auto* array = value.getIf<Array>()) {
        Array result;
        for (const PropertyList& element : *array)
            result.push_back(filledIn(element, places));
        return result;
    }
    if (const auto* dictionary = value.getIf<Dictionary>()) {
        Dictionary result;
        for (const auto& [key, element] : *dictionary)
            result.set(key, filledIn(element, places));
        return result;
    }
    return value;
}

}  // namespace

tl::expected<std::unique_ptr<Laboratory>, std::string> Laboratory::make(
    const std::filesystem::path& directory, ReportingServerOptions reportingOptions,
    CollectorOptions collectorOptions) {
    auto pki = LabPki::make(directory);
    if (!pki) return tl::make_unexpected(pki.error());
    std::unique_ptr<Laboratory> laboratory(
        new Laboratory(std::move(*pki), std::move(reportingOptions), std::move(collectorOptions)));
    if (!laboratory->bags().listening() || !laboratory->reports().listening() ||
        !laboratory->dashboard().listening() || !laboratory->logData().listening() ||
        !laboratory->uploads().listening()) {
        return tl::make_unexpected(std::string("a server could not be started"));
    }
    return laboratory;
}

void Laboratory::setBag(const std::string& name, const Dictionary& bag) {
    const Places places{{{"@events@", reports_.eventsURL()},
                         {"@realtime@", reports_.realtimeURL()},
                         {"@logdata@", logData_.url()},
                         {"@upload@", uploads_.uploadURL()}},
                        {{"@dashboard_port@", int{dashboard_.port()}}}};
    bags_.setBag(name, *filledIn(bag, places).getIf<Dictionary>());
}

}  // namespace telvora::lab
