// SPDX-License-Identifier: Apache-2.0
#include "platform/device_properties.h"

#include <algorithm>
#include <initializer_list>

#include "platform/digest.h"
#include "platform/environment_file.h"
#include "platform/known_settings.h"
#include "platform/locale.h"
#include "plist/property_list_format.h"
#include "util/ascii.h"
#include "util/log.h"
#include "util/utf8.h"

namespace telvora {

namespace {

using std::filesystem::path;

// The prefix of the machine-id in its hash. A change would change the ID of every device.
constexpr std::string_view kDeviceIDPurpose = "com.zandor.telvorad UniqueDeviceID\n";

constexpr std::string_view kKeys[] = {"UniqueDeviceID", "ProductVersion", "BuildVersion",
                                      "HWModelStr",     "ProductType",    "SerialNumber",
                                      "DeviceName",     "ReleaseType",    "CountryCode"};

// The text up to the first zero byte (strings of a device tree end with one) or line feed, without blanks at
// its ends; std::nullopt if it is empty or no UTF-8.
std::optional<std::string> firstLine(const path& file) {
    const auto content = readSmallFile(file, 4096);
    if (!content) return std::nullopt;
    const std::string_view line =
        std::string_view(*content).substr(0, content->find_first_of(std::string_view("\0\n", 2)));
    const std::string_view text = trimmed(line);
    if (text.empty() || !isValidUtf8(text)) return std::nullopt;
    return std::string(text);
}

bool isPlaceholder(std::string_view text) {
    const std::string lower = asciiLowerCase(text);
    constexpr std::string_view kPlaceholders[] = {"to be filled by o.e.m.",
                                                  "default string",
                                                  "not specified",
                                                  "not applicable",
                                                  "none",
                                                  "system product name",
                                                  "system serial number",
                                                  "o.e.m.",
                                                  "oem",
                                                  "unknown",
                                                  "system version",
                                                  "base board serial number",
                                                  "n/a",
                                                  "0",
                                                  "0123456789",
                                                  "invalid",
                                                  "undefined"};
    return std::find(std::begin(kPlaceholders), std::end(kPlaceholders), lower) != std::end(kPlaceholders);
}

std::optional<std::string> uniqueDeviceID(const path& root) {
    const auto machineID = firstLine(root / "etc/machine-id");
    if (!machineID || machineID->size() != 32 ||
        machineID->find_first_not_of("0123456789abcdef") != std::string::npos) {
        return std::nullopt;
    }
    return sha256Hex(std::string(kDeviceIDPurpose) + *machineID).substr(0, 40);
}

// Collects answers; the first answer for a key stays.
class Collector {
  public:
    explicit Collector(Dictionary& properties) : properties_(properties) {}

    void add(std::string_view key, const std::optional<std::string>& answer) {
        if (answer && !answer->empty() && !properties_.contains(key)) properties_.set(key, *answer);
    }

    void addHardware(std::string_view key, std::initializer_list<path> files) {
        for (const path& file : files) {
            const auto answer = firstLine(file);
            if (answer && !isPlaceholder(*answer)) add(key, answer);
        }
    }

  private:
    Dictionary& properties_;
};

Dictionary readDeviceFile(const path& file) {
    Dictionary strings;
    std::error_code error;
    if (!std::filesystem::exists(file, error)) return strings;
    const auto content = readPropertyListFile(file);
    if (!content || !content->is<Dictionary>()) {
        TELVORA_LOG(kLogWarning, "DeviceProperties(readDeviceFile): %s counts as absent: %s", file.c_str(),
                    content ? "not a dictionary" : content.error().c_str());
        return strings;
    }
    for (const auto& [key, value] : *content->getIf<Dictionary>()) {
        const bool isKnown = std::ranges::find(kKeys, key) != std::end(kKeys);
        if (!isKnown || !value.is<std::string>())
            TELVORA_LOG(kLogWarning, "DeviceProperties(readDeviceFile): %s: %s %s", file.c_str(),
                        escapeControlCharacters(key.substr(0, 100)).c_str(),
                        isKnown ? "must be a string" : "is unknown");
        if (value.is<std::string>()) strings.set(key, value);
    }
    const std::string* country = strings.string("CountryCode");
    if (country != nullptr && !countryCodeOf(*country))
        TELVORA_LOG(kLogWarning, "DeviceProperties(readDeviceFile): %s: CountryCode must have two letters",
                    file.c_str());
    return strings;
}

void addOsRelease(Collector& collector, const path& root) {
    auto release = readEnvironmentFile(root / "etc/os-release");
    if (release.empty()) release = readEnvironmentFile(root / "usr/lib/os-release");
    const auto add = [&](const char* key, const char* name) {
        if (const auto found = release.find(name); found != release.end()) collector.add(key, found->second);
    };
    add("ProductVersion", "VERSION_ID");
    for (const char* name : {"BUILD_ID", "IMAGE_VERSION", "VERSION"})
        add("BuildVersion", name);
}

}  // namespace

DeviceProperties::DeviceProperties(const path& configurationDirectory, const path& root)
    : properties_(readDeviceFile(configurationDirectory / "device.plist")) {
    const path dmi = root / "sys/class/dmi/id";
    const path tree = root / "proc/device-tree";
    Collector collector(properties_);
    collector.add("UniqueDeviceID", uniqueDeviceID(root));
    addOsRelease(collector, root);
    collector.addHardware("HWModelStr", {dmi / "board_name", tree / "model"});
    collector.addHardware("ProductType", {dmi / "product_name", tree / "compatible"});
    collector.addHardware("SerialNumber",
                          {dmi / "product_serial", dmi / "board_serial", tree / "serial-number"});
    collector.add("DeviceName", firstLine(root / "proc/sys/kernel/hostname"));
    collector.add("DeviceName", firstLine(root / "etc/hostname"));
}

DeviceProperties::DeviceProperties(const path& configurationDirectory, UserDefaults& defaults)
    : DeviceProperties(configurationDirectory) {
    const auto name = defaults.string(kTelvoraDefaultsDomain, settings::kDeviceName.key);
    if (name) properties_.set("DeviceName", *name);
}

std::optional<std::string> DeviceProperties::answer(std::string_view key) const {
    const std::string* text = properties_.string(key);
    return text ? std::optional(*text) : std::nullopt;
}

}  // namespace telvora
