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
    {"version", text, Need::advised, "sessions end without naming the bag that configured them",
     "The bag's own version, which every session names in its last report."},
    {"refresh_cycle", numeral, Need::optional, "the max-age of the answer's Cache-Control, else a day",
     "For how many seconds the bag may be used before it is fetched again; at most a day (86400).", 1, 86400},
    {"development", dictionary, Need::optional, "no configuration in this environment",
     "What holds in the environment 1.", 0, 0, &kSection},
    {"zandor_internal", dictionary, Need::optional, "no configuration in this environment",
     "What holds in the environment 2, which is that of internal builds.", 0, 0, &kSection},
    {"seed", dictionary, Need::optional, "\"release\" stands in", "What holds in the environment 3.", 0, 0,
     &kSection},
    {"release", dictionary, Need::advised, "no configuration on the devices of ordinary users",
     "What holds in the environment 4, which is that of all other builds.", 0, 0, &kSection},
};

constexpr std::string_view kMadeAnyway = "the backend is made all the same";

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
     "Not used so far: the device's power log takes no reports of sessions.", 0, 0, &kJoulemark, kMadeAnyway},
};

constexpr KeyRule kHttpPostKeys[] = {
    {"clients", dictionaries, Need::required, "the backend is not made",
     "The entries. The first one whose names and framework fit a session decides.", 0, 0, &kClient},
    {"display_url", url, Need::optional, "none",
     "Where people can look at what was reported; handed to the client that asks for it."},
};

constexpr KeyRule kClientKeys[] = {
    {"client", names, Need::optional, "every client",
     "The names of the clients that the entry is for, compared "
     "whole and without regard to case."},
    {"service", list, Need::optional, "every service",
     "The services that the entry is for: the name of the "
     "session's service has to contain one of these, without regard to case."},
    {"enabledSince", version, Need::optional, "every version",
     "The first version of the client framework that uses the entry; older ones pass it over."},
    {"expedite", flag, Need::optional, "as the client wishes",
     "Whether reports are posted at once (1) or in batches (0). Only the first entry of a session's names "
     "counts, "
     "whatever its \"enabledSince\" says."},
    {"override_dnu", flag, Need::optional, "0",
     "Whether reports are sent without regard to the user's consent (1).", 0, 1},
    {"locale_whitelist", list, Need::required, "every session is refused that requires user info",
     "The countries that the entry admits, as codes of two letters; without regard to case. A device that "
     "does "
     "not know its country passes."},
    {"device_whitelist", list, Need::optional, "every device",
     "The devices that the entry admits: the device's "
     "name has to contain one of these, without regard to case."},
    {"device_blacklist", list, Need::optional, "no device",
     "The devices that it refuses: the product type must "
     "contain none of these."},
    {"filters", dictionaries, Need::required, "every session is refused that requires user info",
     "What is removed from events or hashed in them before they leave the device. The first filter that fits "
     "decides about a key. May be empty.",
     0, 0, &kFilter},
    {"sampling_threshold", number, Need::required,
     "every session is refused that requires user info, but where the country has a threshold of its own",
     "Which part of the sessions reports: those whose random draw, from 0 to 1, is not above it.", 0, 1},
    {"per_country_sampling_thresholds", dictionaries, Need::optional, "one threshold for all",
     "Other thresholds for some countries.", 0, 0, &kCountryThreshold},
    {"override_sampling", number, Need::optional, "all are held",
     "A second threshold: sessions beyond the first one hold their reports in case the client promotes them, "
     "but "
     "those beyond this one too report nothing.",
     0, 1},
    {"custom_clientId", anything, Need::optional, "the device's identifier",
     "Its presence, whatever the value, gives each pair of client and service an identifier of its own."},
    {"event_threshold", number, Need::optional, "0",
     "How many reports of one category a batch may hold, less one; the next one sends the batch first.", 0,
     1e6},
    {"extras_on_internal", flag, Need::optional, "0",
     "Whether internal builds identify themselves by the device's identifier."},
    {"post_url", url, Need::advised,
     "reports that are not realtime can't be posted, but where the user default httpsPostURL names a server",
     "Where reports are posted. A session that requires no user info uses the first entry that has one, "
     "whatever else the entry says."},
    {"realtime_post_url", url, Need::optional, "post_url", "Where realtime reports are posted."},
    {"event_whitelist", numerals, Need::optional, "every category",
     "The categories that are sent. An empty list lets nothing pass.", 0, kMaxCategory},
    {"event_blacklist", numerals, Need::optional, "no category", "The categories that are not sent.", 0,
     kMaxCategory},
};

constexpr KeyRule kFilterKeys[] = {
    {"key", text, Need::required, "the filter fits no key",
     "The key of the event that it acts on, without regard to case."},
    {"action", text, Need::advised, "the key is kept",
     "\"remove\" takes the key out, \"sha256\" replaces its value by a SHA-256 digest, anything else keeps "
     "it."},
    {"method", number, Need::optional, "-1",
     "The category of the reports it is for; -1 for all. User info of batched reports counts as of category "
     "0.",
     -1, kMaxCategory},
    {"status", number, Need::optional, "-1",
     "The type of the reports it is for; -1 for all. User info of batched reports counts as of type 0.", -1,
     kMaxCategory},
};

constexpr KeyRule kCountryThresholdKeys[] = {
    {"country", texts, Need::required, "the element fits no country",
     "The countries' codes, two capital letters each."},
    {"threshold", number, Need::required, "the sessions of these countries are refused",
     "Stands there for \"sampling_threshold\".", 0, 1},
};

constexpr KeyRule kDashboardKeys[] = {
    {"ip", address, Need::required, "the backend is not made", "The collector's IPv4 address."},
    {"port", number, Need::required, "the backend is not made", "Its UDP port.", 1, 65535},
    {"reliable", numeral, Need::optional, "each datagram is sent once",
     "Its presence has datagrams acknowledged and sent again; the value is the period of the timer for that, "
     "in "
     "milliseconds.",
     1, 86400000, nullptr, "the period is 500 ms"},
    {"post_url", url, Need::optional, "log data can't be uploaded", "Where log data is uploaded to."},
    {"display_url", url, Need::optional, "none", "As in the HTTPS backends, which go before."},
};

constexpr KeyRule kUploadServerKeys[] = {
    {"post_url", url, Need::required, "the backend is not made", "Where files are uploaded to."},
    {"display_url", url, Need::optional, "none", "Not used so far."},
};

constexpr KeyRule kVodexKeys[] = {
    {"active", boolean, Need::optional, "no meaning",
     "Not used: that the dictionary is there makes the backend."},
};

constexpr std::string_view kIgnored = "is ignored";

}  // namespace

const DictionaryKind kSignedDocument{"signed document", kSignedDocumentKeys, kIgnored};
const DictionaryKind kBag{"bag", kBagKeys, kIgnored};
const DictionaryKind kSection{"environment", kSectionKeys, "names no backend and is passed over"};
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
