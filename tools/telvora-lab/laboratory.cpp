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

Hosting hostingOf(const LaboratoryOptions& options, int port) {
    return {options.address, port, options.feed, options.keptBytes};
}

CollectorOptions collectorOf(const LaboratoryOptions& options) {
    CollectorOptions collector = options.collector;
    collector.address = options.address;
    collector.port = static_cast<uint16_t>(options.ports.dashboard);
    if (options.feed != nullptr) {
        collector.onReport = [feed = options.feed](const DashboardReport& report) {
            feed->add("dashboard", {{"report", describe(report)}});
        };
    }
    return collector;
}

}  // namespace

Laboratory::Laboratory(LabPki pki, LaboratoryOptions options)
    : pki_(std::move(pki)),
      bags_(pki_, hostingOf(options, options.ports.bags)),
      reports_(pki_, std::move(options.reporting), hostingOf(options, options.ports.reports)),
      dashboard_(collectorOf(options)),
      logData_(pki_, hostingOf(options, options.ports.logData)),
      uploads_(pki_, hostingOf(options, options.ports.uploads)) {}

tl::expected<std::unique_ptr<Laboratory>, std::string> Laboratory::make(
    const std::filesystem::path& directory, LaboratoryOptions options) {
    auto pki = LabPki::make(directory, options.address, options.keepKeys);
    if (!pki) return tl::unexpected(pki.error());
    const std::string address = options.address;
    const Ports wanted = options.ports;
    std::unique_ptr<Laboratory> laboratory(new Laboratory(std::move(*pki), std::move(options)));
    const std::pair<bool, int> servers[] = {{laboratory->bags().listening(), wanted.bags},
                                            {laboratory->reports().listening(), wanted.reports},
                                            {laboratory->dashboard().listening(), wanted.dashboard},
                                            {laboratory->logData().listening(), wanted.logData},
                                            {laboratory->uploads().listening(), wanted.uploads}};
    for (const auto& [listening, port] : servers) {
        if (!listening) return tl::unexpected(cannotListen(address, port));
    }
    return laboratory;
}

Ports Laboratory::ports() const {
    return {bags_.port(), reports_.port(), logData_.port(), uploads_.port(), dashboard_.port()};
}

void Laboratory::setBag(const std::string& name, const Dictionary& bag) {
    bags_.setBag(name, filledIn(bag));
    MutexLock lock(mutex_);
    given_.insert_or_assign(name, bag);
}

std::optional<Dictionary> Laboratory::bag(const std::string& name) const {
    {
        MutexLock lock(mutex_);
        if (const auto given = given_.find(name); given != given_.end()) return given->second;
    }
    return bags_.bag(name);
}

bool Laboratory::signs(const std::string& name) const {
    MutexLock lock(mutex_);
    return given_.contains(name);
}

Dictionary Laboratory::filledIn(const Dictionary& bag) const {
    const Places places{{{"@events@", reports_.eventsURL()},
                         {"@realtime@", reports_.realtimeURL()},
                         {"@logdata@", logData_.url()},
                         {"@upload@", uploads_.uploadURL()}},
                        {{"@dashboard_port@", int{dashboard_.port()}}}};
    return *lab::filledIn(bag, places).getIf<Dictionary>();
}

}  // namespace telvora::lab
