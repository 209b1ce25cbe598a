// SPDX-License-Identifier: Apache-2.0
#include "daemon/settings.h"

#include <algorithm>

#include "access/client_files.h"
#include "backends/vodex_backend.h"
#include "daemon/keep_alive_transaction.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kDefaultShutdownTime = std::chrono::seconds(5);
constexpr std::chrono::milliseconds kMaxTime = std::chrono::hours(24);

std::chrono::milliseconds milliseconds(UserDefaults& defaults, std::string_view key,
                                       std::chrono::milliseconds otherwise) {
    const int64_t value = defaults.integer(kTelvoraDefaultsDomain, key).value_or(otherwise.count());
    return std::chrono::milliseconds(std::clamp<int64_t>(value, 0, kMaxTime.count()));
}

uint64_t messageLogBytes(UserDefaults& defaults) {
    constexpr int64_t kDefault = int64_t{8} << 20;
    constexpr int64_t kLeast = int64_t{64} << 10;
    constexpr int64_t kMost = int64_t{1} << 30;
    const int64_t value = defaults.integer(kTelvoraDefaultsDomain, "messageLogBytes").value_or(kDefault);
    return static_cast<uint64_t>(std::clamp(value, kLeast, kMost));
}

OutboxLimits outboxLimits(UserDefaults& defaults) {
    constexpr int64_t kTwoWeeks = 14 * 86400;
    const auto setting = [&](std::string_view key, int64_t otherwise, int64_t least, int64_t most) {
        return std::clamp(defaults.integer(kTelvoraDefaultsDomain, key).value_or(otherwise), least, most);
    };
    return {.bytes = static_cast<uint64_t>(setting("outboxBytes", 0, 0, int64_t{1} << 30)),
            .age = std::chrono::seconds(setting("outboxSeconds", kTwoWeeks, 60, 366 * 86400)),
            .countPerUser = static_cast<uint64_t>(setting("outboxCountPerUser", 10'000, 1, 1'000'000))};
}

std::vector<std::string> uploadDirectories(UserDefaults& defaults) {
    std::vector<std::string> directories;
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, "uploadDirectories");
    const Array* array = value ? value->getIf<Array>() : nullptr;
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* text = element.getIf<std::string>()) directories.push_back(*text);
    }
    return directories;
}

std::string vodexAdaptorPath(UserDefaults& defaults) {
    const auto value = defaults.administratorValue(kTelvoraDefaultsDomain, "vodexAdaptorPath");
    const auto* path = value ? value->getIf<std::string>() : nullptr;
    return path != nullptr ? *path : VodexBackend::kBundlePath;
}

}  // namespace

Settings readSettings(UserDefaults& defaults) {
    return {.uploadDirectories = canonicalDirectories(uploadDirectories(defaults)),
            .vodexAdaptorPath = vodexAdaptorPath(defaults),
            .idleTime = milliseconds(defaults, "idleMilliseconds", kDefaultIdleTime),
            .shutdownTime = milliseconds(defaults, "shutdownMilliseconds", kDefaultShutdownTime),
            .messageLogBytes = messageLogBytes(defaults),
            .outbox = outboxLimits(defaults)};
}

int readLogLevel(UserDefaults& defaults) {
    const auto level =
        static_cast<int>(defaults.integer(kTelvoraDefaultsDomain, "logLevel").value_or(kLogInfo));
    setLogThreshold(level);
    return level;
}

}  // namespace telvora
