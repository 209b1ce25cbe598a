// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/bag_keys.h"

#include <algorithm>
#include <array>

#include "telvora/keys.h"

namespace telvora::bag {

namespace {

using enum ValueType;

constexpr double kMaxCategory = 65535;

constexpr KeyRule kSignedDocumentKeys[] = {
    {"bag", base64, Need::required, "the document is refused",
     "The bag: a serialised property list, in base64."},
    {"signature", base64, Need::required, "the document is refused",
     "An RSA signature (PKCS #1 version 1.5) over the SHA-1 digest of the bag's bytes, in base64."},
};

constexpr KeyRule kBagKeys[] = {
    {"version", text, Need::advised, "end messages do not name the bag",
     "The bag's version, which is part of every session's end message."},
    {"refresh_cycle", numeral, Need::optional, "the max-age of the answer's Cache-Control, else a day",
     "The seconds until the bag is fetched again, at most a day (86400).", 1, 86400},
    {"development", dictionary, Need::optional, "no configuration in this environment",
     "The section for environment 1.", 0, 0, &kSection},
    {"zandor_internal", dictionary, Need::optional, "no configuration in this environment",
     "The section for environment 2, that of internal builds.", 0, 0, &kSection},
    {"seed", dictionary, Need::optional, "\"release\" is used", "The section for environment 3.", 0, 0,
     &kSection},
    {"release", dictionary, Need::advised, "no configuration on the devices of ordinary users",
     "The section for environment 4, that of all other builds.", 0, 0, &kSection},
};

constexpr std::string_view kMadeAnyway = "the backend is made nevertheless";

constexpr KeyRule kSectionKeys[] = {
    {kTelvoraBackendHTTPPost, dictionary, Need::optional, "no such backend",
     "Reports as JSON events over HTTPS.", 0, 0, &kHttpPost},
    {kTelvoraBackendHTTPPost2, dictionary, Need::optional, "no such backend",
     "A second one of the same kind, with entries of its own.", 0, 0, &kHttpPost},
    {kTelvoraBackendDashboard, dictionary, Need::optional, "no such backend",
     "Datagrams to a collector, and uploads of log data.", 0, 0, &kDashboard},
    {kTelvoraBackendUploadServer, dictionary, Need::optional, "no such backend",
     "Uploads of diagnostic files.", 0, 0, &kUploadServer},
    {kTelvoraBackendVodex, dictionary, Need::optional, "no such backend",
     "Reports to the device's metrics adaptor, for the client types 7, 11 and 13.", 0, 0, &kVodex,
     kMadeAnyway},
    {kTelvoraBackendJoulemark, dictionary, Need::optional, "no such backend",
     "Not used: sessions do not write the device's power log.", 0, 0, &kJoulemark, kMadeAnyway},
};

constexpr KeyRule kHttpPostKeys[] = {
    {"clients", dictionaries, Need::required, "the backend is not made",
     "The entries. The first one whose names and framework match a session is used.", 0, 0, &kClient},
    {"display_url", url, Need::optional, "none",
     "A URL where people can see their reports; the client can ask for it."},
};

constexpr KeyRule kClientKeys[] = {
    {"client", names, Need::optional, "every client",
     "The names of the clients that the entry applies to, compared whole and without regard to case."},
    {"service", list, Need::optional, "every service",
     "The services that the entry applies to: the name of the session's service contains one of these, "
     "without regard to case."},
    {"enabledSince", version, Need::optional, "every version",
     "The first version of the client framework that uses the entry; older ones skip it."},
    {"expedite", flag, Need::optional, "as the client asks",
     "Whether reports are posted at once (1) or in batches (0). Only the first entry that matches a "
     "session's names counts, regardless of its \"enabledSince\"."},
    {"override_dnu", flag, Need::optional, "0",
     "Whether reports are sent without regard to the user's consent (1).", 0, 1},
    {"locale_whitelist", list, Need::required, "every session that requires user info is refused",
     "The countries that the entry allows, as codes of two letters, without regard to case. A device of "
     "unknown country passes."},
    {"device_whitelist", list, Need::optional, "every device",
     "The devices that the entry allows: the device's name contains one of these, without regard to case."},
    {"device_blacklist", list, Need::optional, "no device",
     "The devices that the entry refuses: their product type contains one of these."},
    {"filters", dictionaries, Need::required, "every session that requires user info is refused",
     "The filters that remove or hash keys of events before they leave the device. The first filter that "
     "matches a key decides about it. May be empty.",
     0, 0, &kFilter},
    {"sampling_threshold", number, Need::required,
     "every session that requires user info is refused, unless its country has a threshold",
     "The share of sessions that report: those whose random draw, from 0 to 1, is not above it.", 0, 1},
    {"per_country_sampling_thresholds", dictionaries, Need::optional, "one threshold for all",
     "Other thresholds for some countries.", 0, 0, &kCountryThreshold},
    {"override_sampling", number, Need::optional, "all sampled-out sessions hold their reports",
     "A second threshold: a session above the first one holds its reports until a promotion; a session that "
     "is also above this one is disabled.",
     0, 1},
    {"custom_clientId", anything, Need::optional, "the device's identifier",
     "Its presence, with any value, gives each pair of client and service an identifier of its own."},
    {"event_threshold", number, Need::optional, "0",
     "The number of reports of one category in a batch, less one; the next report posts the batch first.", 0,
     1e6},
    {"extras_on_internal", flag, Need::optional, "0",
     "Whether internal builds use the device's identifier (1)."},
    {"post_url", url, Need::advised,
     "reports that are not realtime can't be posted, unless the user default httpsPostURL is set",
     "The URL for reports. A session that requires no user info uses the first entry with a URL, regardless "
     "of its other keys."},
    {"realtime_post_url", url, Need::optional, "post_url", "The URL for realtime reports."},
    {"event_whitelist", numerals, Need::optional, "every category",
     "The categories that are sent. An empty list lets no report pass.", 0, kMaxCategory},
    {"event_blacklist", numerals, Need::optional, "no category", "The categories that are not sent.", 0,
     kMaxCategory},
};

constexpr KeyRule kFilterKeys[] = {
    {"key", text, Need::required, "the filter matches no key",
     "The key of the event that it acts on, without regard to case."},
    {"action", text, Need::advised, "the key is kept",
     "\"remove\" removes the key, \"sha256\" replaces its value by a SHA-256 digest, any other text keeps "
     "it."},
    {"method", number, Need::optional, "-1",
     "The category of reports that it applies to; -1 for all. User info of batched reports has category 0.",
     -1, kMaxCategory},
    {"status", number, Need::optional, "-1",
     "The type of reports that it applies to; -1 for all. User info of batched reports has type 0.", -1,
     kMaxCategory},
};

constexpr KeyRule kCountryThresholdKeys[] = {
    {"country", texts, Need::required, "the element matches no country",
     "The countries' codes, two capital letters each."},
    {"threshold", number, Need::required, "the sessions of these countries are refused",
     "Replaces \"sampling_threshold\" in these countries.", 0, 1},
};

constexpr KeyRule kDashboardKeys[] = {
    {"ip", address, Need::required, "the backend is not made", "The collector's IPv4 address."},
    {"port", number, Need::required, "the backend is not made", "Its UDP port.", 1, 65535},
    {"reliable", numeral, Need::optional, "each datagram is sent once",
     "With this key, datagrams are acknowledged and retransmitted; the value is the period of the timer in "
     "milliseconds.",
     1, 86400000, nullptr, "the period is 500 ms"},
    {"post_url", url, Need::optional, "log data can't be uploaded", "The URL for log data."},
    {"display_url", url, Need::optional, "none", "As in the HTTPS backends, which have priority."},
};

constexpr KeyRule kUploadServerKeys[] = {
    {"post_url", url, Need::required, "the backend is not made", "The URL for files."},
    {"display_url", url, Need::optional, "none", "Not used."},
};

constexpr KeyRule kVodexKeys[] = {
    {"active", boolean, Need::optional, "no meaning",
     "Not used: the presence of the dictionary makes the backend."},
};

constexpr std::string_view kIgnored = "is ignored";

}  // namespace

const DictionaryKind kSignedDocument{"signed document", kSignedDocumentKeys, kIgnored};
const DictionaryKind kBag{"bag", kBagKeys, kIgnored};
const DictionaryKind kSection{"environment", kSectionKeys, "names no backend and is ignored"};
const DictionaryKind kHttpPost{"httpPost", kHttpPostKeys, kIgnored};
const DictionaryKind kClient{"client entry", kClientKeys, kIgnored};
const DictionaryKind kFilter{"filter", kFilterKeys, kIgnored};
const DictionaryKind kCountryThreshold{"country threshold", kCountryThresholdKeys, kIgnored};
const DictionaryKind kDashboard{"dashboard", kDashboardKeys, kIgnored};
const DictionaryKind kUploadServer{"uploadServer", kUploadServerKeys, kIgnored};
const DictionaryKind kVodex{"vodex", kVodexKeys, kIgnored};
const DictionaryKind kJoulemark{"joulemark", {}, kIgnored};

std::span<const DictionaryKind* const> allDictionaryKinds() {
    static constexpr std::array<const DictionaryKind*, 11> kAll{
        &kSignedDocument,   &kBag,       &kSection,      &kHttpPost, &kClient,   &kFilter,
        &kCountryThreshold, &kDashboard, &kUploadServer, &kVodex,    &kJoulemark};
    return kAll;
}

const KeyRule* DictionaryKind::find(std::string_view key) const {
    const auto rule =
        std::find_if(keys.begin(), keys.end(), [key](const KeyRule& r) { return r.key == key; });
    return rule != keys.end() ? &*rule : nullptr;
}

std::string_view nameOf(ValueType type) {
    switch (type) {
        case text:
            return "text";
        case base64:
            return "base64 text";
        case list:
        case names:
            return "text with commas";
        case url:
            return "URL";
        case address:
            return "IPv4 address";
        case version:
            return "version";
        case number:
        case numeral:
            return "number";
        case flag:
            return "number or boolean";
        case boolean:
            return "boolean";
        case numerals:
            return "array of numbers";
        case texts:
            return "array of texts";
        case dictionary:
            return "dictionary";
        case dictionaries:
            return "array of dictionaries";
        case anything:
            return "anything";
    }
    return "";
}

}  // namespace telvora::bag
