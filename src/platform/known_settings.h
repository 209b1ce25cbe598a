// SPDX-License-Identifier: Apache-2.0
//
// The settings: one table of all user defaults that the daemon reads, for its readers and for the tools that
// list and write them. telvorad.defaults(5) describes them for users.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/user_defaults.h"

namespace telvora {

// The user's consent.
inline constexpr std::string_view kConsentDomain = "com.zandor.diagnosticsharing";
inline constexpr std::string_view kConsentKey = "Enabled";

enum class SettingType : uint8_t { integer, boolean, string, listOfStrings, listsOfUsers };

// The sessions or the event from which a changed value counts.
enum class SettingEffect : uint8_t { atOnce, laterSessions, reload, restart };

struct Setting {
    std::string_view key;
    std::string_view meaning;  // a phrase for tables
    SettingType type = SettingType::string;
    SettingEffect effect = SettingEffect::atOnce;
    std::string_view unit = {};
    int64_t standard = 0;  // the default of an integer or boolean
    int64_t least = 0;     // of an integer
    int64_t most = std::numeric_limits<int64_t>::max();
    std::string_view otherwise = {};  // the default in words, unless it is `standard`
    // Read from the administrator's file alone.
    bool administratorOnly = false;
    std::string_view domain = kTelvoraDefaultsDomain;
};

namespace settings {

inline constexpr int64_t kDayInMilliseconds = int64_t{24} * 60 * 60 * 1000;

inline constexpr Setting kEnvironmentType{.key = "environmentType",
                                          .meaning =
                                              "section of a bag: 1 development, 2 zandor_internal, "
                                              "3 seed, 4 release, 0 none",
                                          .type = SettingType::integer,
                                          .effect = SettingEffect::restart,
                                          .most = 4,
                                          .otherwise = "4; 2 in an internal build"};
inline constexpr Setting kStorebagURL{.key = "telvora_storebag_url",
                                      .meaning = "base URL of the bag server, without a slash at its end",
                                      .effect = SettingEffect::restart,
                                      .otherwise = "built in"};
inline constexpr Setting kPostURL{.key = "httpsPostURL",
                                  .meaning = "URL for events instead of the bag's",
                                  .effect = SettingEffect::laterSessions,
                                  .otherwise = "the bag's"};
inline constexpr Setting kRealtimePostURL{.key = "httpsRealtimePostURL",
                                          .meaning = "URL for realtime events instead of the bag's",
                                          .effect = SettingEffect::laterSessions,
                                          .otherwise = "the bag's"};
inline constexpr Setting kForceEventLogging{
    .key = "forceEventLogging",
    .meaning = "message log has every posted event, in the environments development and zandor_internal",
    .type = SettingType::boolean,
    .effect = SettingEffect::laterSessions};
inline constexpr Setting kDeviceName{.key = "deviceName",
                                     .meaning = "name of the device in events; may be empty",
                                     .effect = SettingEffect::restart,
                                     .otherwise = "device.plist, else the host name"};
inline constexpr Setting kLogLevel{
    .key = "logLevel",
    .meaning = "highest level of log lines: 3 errors, 4 warnings, 6 information, 7 debugging",
    .type = SettingType::integer,
    .effect = SettingEffect::reload,
    .standard = 6,
    .least = 3,
    .most = 7};
inline constexpr Setting kShutdownTime{.key = "shutdownMilliseconds",
                                       .meaning = "time for requests under way at the daemon's end",
                                       .type = SettingType::integer,
                                       .effect = SettingEffect::restart,
                                       .unit = "ms",
                                       .standard = 5000,
                                       .most = kDayInMilliseconds};
inline constexpr Setting kIdleTime{
    .key = "idleMilliseconds",
    .meaning = "time without a client after which a daemon exits that its socket started",
    .type = SettingType::integer,
    .effect = SettingEffect::restart,
    .unit = "ms",
    .standard = 30'000,
    .most = kDayInMilliseconds};
inline constexpr Setting kMessageLogBytes{.key = "messageLogBytes",
                                          .meaning = "size of the message log",
                                          .type = SettingType::integer,
                                          .effect = SettingEffect::restart,
                                          .unit = "bytes",
                                          .standard = int64_t{8} << 20,
                                          .least = int64_t{64} << 10,
                                          .most = int64_t{1} << 30};
inline constexpr Setting kMaxUploadBytes{.key = "maxUploadBytes",
                                         .meaning = "size of an uploaded file",
                                         .type = SettingType::integer,
                                         .unit = "bytes",
                                         .standard = int64_t{256} << 20,
                                         .most = int64_t{2047} << 20};  // limit of one compression
inline constexpr Setting kOutboxBytes{
    .key = "outboxBytes",
    .meaning = "size of the outbox, which keeps messages that found no server; 0: no outbox",
    .type = SettingType::integer,
    .effect = SettingEffect::restart,
    .unit = "bytes",
    .most = int64_t{1} << 30};
inline constexpr Setting kOutboxSeconds{.key = "outboxSeconds",
                                        .meaning = "age of a message in the outbox",
                                        .type = SettingType::integer,
                                        .effect = SettingEffect::restart,
                                        .unit = "s",
                                        .standard = int64_t{14} * 86400,
                                        .least = 60,
                                        .most = int64_t{366} * 86400};
inline constexpr Setting kOutboxCount{.key = "outboxCountPerUser",
                                      .meaning = "messages in the outbox from one user's programs",
                                      .type = SettingType::integer,
                                      .effect = SettingEffect::restart,
                                      .standard = 10'000,
                                      .least = 1,
                                      .most = 1'000'000};
inline constexpr Setting kHoldOnMetered{
    .key = "holdOnMetered",
    .meaning = "only realtime reports leave over a metered link; the outbox keeps the others",
    .type = SettingType::boolean,
    .effect = SettingEffect::restart};
inline constexpr Setting kHoldOnBattery{
    .key = "holdOnBattery",
    .meaning = "only realtime reports leave while the device runs on battery; the outbox keeps the others",
    .type = SettingType::boolean,
    .effect = SettingEffect::restart};
inline constexpr Setting kKeepBags{.key = "keepBags",
                                   .meaning = "bags are kept over the daemon's end, with their age",
                                   .type = SettingType::boolean,
                                   .effect = SettingEffect::restart};
inline constexpr Setting kProxy{.key = "proxy",
                                .meaning = "URL of a proxy for all requests",
                                .effect = SettingEffect::restart,
                                .otherwise = "none",
                                .administratorOnly = true};
inline constexpr Setting kProxyExceptions{
    .key = "proxyExceptions",
    .meaning = "hosts, domains and networks that are reached without the proxy, separated by commas",
    .effect = SettingEffect::restart,
    .otherwise = "none",
    .administratorOnly = true};
inline constexpr Setting kCaFile{.key = "caFile",
                                 .meaning = "file of the authorities of servers' certificates, PEM",
                                 .effect = SettingEffect::restart,
                                 .otherwise = "the system's store",
                                 .administratorOnly = true};
inline constexpr Setting kClientCertificate{.key = "clientCertificate",
                                            .meaning = "file of the device's TLS certificate, PEM",
                                            .effect = SettingEffect::restart,
                                            .otherwise = "none",
                                            .administratorOnly = true};
inline constexpr Setting kClientKey{.key = "clientKey",
                                    .meaning = "file of the private key of clientCertificate, PEM",
                                    .effect = SettingEffect::restart,
                                    .otherwise = "none",
                                    .administratorOnly = true};
inline constexpr Setting kPinnedPublicKeys{
    .key = "pinnedPublicKeys",
    .meaning = "public keys of which TLS servers must have one: sha256//BASE64, separated by semicolons",
    .effect = SettingEffect::restart,
    .otherwise = "any",
    .administratorOnly = true};
inline constexpr Setting kUploadDirectories{
    .key = "uploadDirectories",
    .meaning = "directories in which the daemon reads and removes clients' files by name",
    .type = SettingType::listOfStrings,
    .effect = SettingEffect::restart,
    .otherwise = "none",
    .administratorOnly = true};
inline constexpr Setting kVodexAdaptorPath{.key = "vodexAdaptorPath",
                                           .meaning = "path of the metrics adaptor, a shared object",
                                           .effect = SettingEffect::restart,
                                           .otherwise = "built in",
                                           .administratorOnly = true};
inline constexpr Setting kSharedHierarchies{.key = "sharedHierarchies",
                                            .meaning = "users who share hierarchies",
                                            .type = SettingType::listsOfUsers,
                                            .effect = SettingEffect::laterSessions,
                                            .otherwise = "none",
                                            .administratorOnly = true};

// The quotas of one user.
inline constexpr Setting kMaxConnections{.key = "maxConnectionsPerUser",
                                         .meaning = "one user's connections to both sockets",
                                         .type = SettingType::integer,
                                         .standard = 1024};
// Fewer than connections: a user with too many sessions can still ask for the status.
inline constexpr Setting kMaxSessions{.key = "maxSessionsPerUser",
                                      .meaning = "one user's sessions",
                                      .type = SettingType::integer,
                                      .standard = 1000};
// Half of the HTTP client's limit for one server (http_client.h), which leaves the other half to other users.
inline constexpr Setting kMaxPendingBytes{
    .key = "maxPendingBytesPerUser",
    .meaning = "one user's reports in batches and posts without an answer",
    .type = SettingType::integer,
    .unit = "bytes",
    .standard = int64_t{16} << 20};
inline constexpr Setting kMaxUnreadBytes{
    .key = "maxUnreadBytesPerUser",
    .meaning = "copies of reports that one user's aggregating clients have not read",
    .type = SettingType::integer,
    .unit = "bytes",
    .standard = int64_t{16} << 20};
// The limit of one backend's batch.
inline constexpr Setting kMaxDormantBytes{.key = "maxDormantBytesPerUser",
                                          .meaning = "one user's reports in batches that a flush would drop",
                                          .type = SettingType::integer,
                                          .unit = "bytes",
                                          .standard = int64_t{8} << 20};
// Four of the largest messages (BusLimits).
inline constexpr Setting kMaxInputBytes{
    .key = "maxInputBytesPerUser",
    .meaning = "one user's messages that have arrived in part or wait for earlier ones",
    .type = SettingType::integer,
    .unit = "bytes",
    .standard = int64_t{64} << 20};
inline constexpr Setting kMaxSessionBytes{.key = "maxSessionBytesPerUser",
                                          .meaning = "session infos and user infos of one user's sessions",
                                          .type = SettingType::integer,
                                          .unit = "bytes",
                                          .standard = int64_t{16} << 20};
inline constexpr Setting kMaxExtensionTokens{.key = "maxExtensionTokensPerUser",
                                             .meaning = "one user's open files for uploads",
                                             .type = SettingType::integer,
                                             .standard = 512};
inline constexpr Setting kMaxReportsPerDay{.key = "maxReportsPerUserPerDay",
                                           .meaning = "reports that one user's programs post in a day",
                                           .type = SettingType::integer,
                                           .standard = std::numeric_limits<int64_t>::max(),
                                           .otherwise = "no limit"};
inline constexpr Setting kMaxReportBytesPerDay{
    .key = "maxReportBytesPerUserPerDay",
    .meaning = "size of the reports that one user's programs post in a day",
    .type = SettingType::integer,
    .unit = "bytes",
    .standard = std::numeric_limits<int64_t>::max(),
    .otherwise = "no limit"};
// Half of the journal's limit for one service, journald.conf(5).
inline constexpr Setting kMaxLogLines{.key = "maxLogLinesPerUser",
                                      .meaning = "log lines for one user's programs, without debugging lines",
                                      .type = SettingType::integer,
                                      .unit = "a minute",
                                      .standard = 10'000};

inline constexpr Setting kConsent{.key = kConsentKey,
                                  .meaning = "the user's consent to sharing diagnostics",
                                  .type = SettingType::boolean,
                                  .effect = SettingEffect::laterSessions,
                                  .domain = kConsentDomain};
inline constexpr Setting kAutomaticTimeZone{.key = "TMAutomaticTimeZoneEnabled",
                                            .meaning = "the device sets its time zone by itself",
                                            .type = SettingType::boolean,
                                            .effect = SettingEffect::laterSessions,
                                            .standard = 1,
                                            .domain = "com.zandor.timed"};

}  // namespace settings

// All settings, those of one domain together.
std::span<const Setting* const> knownSettings();
// The setting of that name; null if there is none.
const Setting* findSetting(std::string_view domain, std::string_view key);

// The reason why the daemon would not use the value ("must be an integer from 3 to 7"); std::nullopt if it
// would. An integer may also be written as a string or a real.
std::optional<std::string> whyUnfit(const Setting& setting, const PropertyList& value);

// The value of an integer, or its default. An unfit value counts as absent, with a line at level 4, once for
// each such value. Thread-safe; may block on file I/O.
int64_t integerSetting(UserDefaults& defaults, const Setting& setting);

// "6", "true", "built in": the default for people.
std::string defaultOf(const Setting& setting);
// "at once", "for later sessions", "after SIGHUP", "after a restart".
std::string_view describe(SettingEffect effect);

}  // namespace telvora
