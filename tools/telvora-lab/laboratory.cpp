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

PropertyList withURLs(const PropertyList& value, const ReportingServer& reports) {
    if (const auto* text = value.getIf<std::string>()) {
        std::string result = *text;
        replaceAll(result, "@events@", reports.eventsURL());
        replaceAll(result, "@realtime@", reports.realtimeURL());
        return result;
    }
    if (const auto* array = value.getIf<Array>()) {
        Array result;
        for (const PropertyList& element : *array)
            result.push_back(withURLs(element, reports));
        return result;
    }
    if (const auto* dictionary = value.getIf<Dictionary>()) {
        Dictionary result;
        for (const auto& [key, element] : *dictionary)
            result.set(key, withURLs(element, reports));
        return result;
    }
    return value;
}

}  // namespace

tl::expected<std::unique_ptr<Laboratory>, std::string> Laboratory::make(
    const std::filesystem::path& directory, ReportingServerOptions reportingOptions) {
    auto pki = LabPki::make(directory);
    if (!pki) return tl::make_unexpected(pki.error());
    std::unique_ptr<Laboratory> laboratory(new Laboratory(std::move(*pki), std::move(reportingOptions)));
    if (!laboratory->bags().listening() || !laboratory->reports().listening()) {
        return tl::make_unexpected(std::string("a server could not be started"));
    }
    return laboratory;
}

void Laboratory::setBag(const std::string& name, const Dictionary& bag) {
    bags_.setBag(name, *withURLs(bag, reports_).getIf<Dictionary>());
}

}  // namespace telvora::lab
