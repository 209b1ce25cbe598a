// SPDX-License-Identifier: Apache-2.0
//
// Asks a bag server with the daemon's own code, and looks for answers that mislead devices.
#include <algorithm>
#include <charconv>
#include <ctime>
#include <future>
#include <iostream>

#include "config/client_framework.h"
#include "config/signed_bag.h"
#include "config/storebag_fetcher.h"
#include "http/http_request_rules.h"
#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/texts.h"
#include "util/ascii.h"
#include "util/log.h"

namespace telvora::bag {

namespace {

constexpr char kNowhere[] = "/proc/nowhere";  // settings stay in memory

// Passes requests on, and keeps the last answer.
class RecordingHttpClient final : public HttpClient {
  public:
    explicit RecordingHttpClient(const std::string& caFile)
        : client_(makeCurlHttpClient({.link = {.caFile = caFile}})) {}
    void start(HttpRequest request, Completion completion) override {
        client_->start(std::move(request), [this, completion = std::move(completion)](HttpResult result) {
            last = result;
            completion(std::move(result));
        });
    }

    HttpResult last = HttpResponse();

  private:
    const std::unique_ptr<HttpClient> client_;
};

// A device that asks one server for one bag.
class Device {
  public:
    Device(const std::string& url, const std::string& caFile)
        : http_(caFile), name_(url.substr(url.rfind('/') + 1)) {
        static_cast<void>(
            defaults_.set(kTelvoraDefaultsDomain, "telvora_storebag_url", url.substr(0, url.rfind('/'))));
    }

    StorebagFetchStatus fetch(const std::optional<std::string>& lastModified) {
        std::promise<StorebagFetchStatus> fetched;
        fetcher_.fetchStorebagWithName(
            name_, {.lastModified = lastModified},
            [&fetched](const auto&, StorebagFetchStatus status) { fetched.set_value(std::move(status)); });
        return fetched.get_future().get();
    }
    const HttpResult& answer() const { return http_.last; }

  private:
    RecordingHttpClient http_;
    const std::string name_;
    UserDefaults defaults_{kNowhere, kNowhere};
    const DeviceProperties properties_{Dictionary()};
    const DeviceIdentity identity_{properties_, defaults_};
    const Environment environment_{defaults_, identity_};
    const ClientFramework framework_ = ClientFramework::ofVersion("8.0");
    const StorebagFetcher fetcher_{{http_, environment_, framework_}};
};

class Report {
  public:
    void say(const std::string& text) const {
        std::cout << "  ok       " << escapeControlCharacters(text) << '\n';
    }
    void warn(const std::string& text) {
        std::cout << "  problem  " << escapeControlCharacters(text) << '\n';
        found_ = true;
    }
    void check(bool isFine, const std::string& fine, const std::string& problem) {
        isFine ? say(fine) : warn(problem);
    }
    bool found() const { return found_; }

  private:
    bool found_ = false;
};

// The "max-age" of a Cache-Control as RFC 9111 reads it.
std::optional<int64_t> standardMaxAge(const HttpResponse& response) {
    std::string list = response.listHeader("Cache-Control");
    for (std::string_view rest = list; !rest.empty();) {
        const size_t comma = std::min(rest.find(','), rest.size());
        const std::string_view directive = trimmed(rest.substr(0, comma));
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        constexpr std::string_view kName = "max-age=";
        if (directive.size() <= kName.size() ||
            !equalsIgnoringAsciiCase(directive.substr(0, kName.size()), kName))
            continue;
        int64_t seconds = 0;
        const std::string_view number = directive.substr(kName.size());
        if (std::from_chars(number.data(), number.data() + number.size(), seconds).ec == std::errc())
            return seconds;
    }
    return std::nullopt;
}

std::string httpDateOfNow() {
    const time_t now = time(nullptr);
    tm date{};
    char text[64];
    strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&now, &date));
    return text;
}

void judgeBag(Report& report, const HttpResponse& answer, const std::string& publicKeyFile) {
    const auto document = parsePlist("the answer", answer.body);
    const auto parts = document ? takeApart(*document) : std::nullopt;
    if (!parts)
        return report.warn("the body is no signed document: devices get no bag, and ask again after 900 s");
    const auto bag = parsePlist("the bag", parts->inner);
    if (!bag) return report.warn(bag.error());
    const std::string* version = bag->string("version");
    report.say("a bag of version " + (version != nullptr ? *version : "(none)"));
    if (publicKeyFile.empty()) return report.say("no --public: the signature is not checked");
    const auto der = readFile(publicKeyFile);
    if (!der) return report.warn(der.error());
    report.check(openSignedBag(answer.body, {*der}).has_value(), "the signature verifies",
                 "the signature does not verify with " + publicKeyFile + ": devices get no bag");
}

void judgeAge(Report& report, const HttpResponse& answer, int32_t maxAge) {
    const auto standard = standardMaxAge(answer);
    report.check(
        !standard || *standard == maxAge,
        "devices ask again after " + std::to_string(maxAge) + " s, unless the bag has a refresh_cycle",
        "devices read " + std::to_string(maxAge) +
            " s from \"Cache-Control: " + answer.listHeader("Cache-Control") + "\": write it as \"max-age=" +
            std::to_string(standard.value_or(0)) + "\", in lower case, first or after a blank");
}

// An unchanged bag: the device sends the date of its copy.
void judgeUnchanged(Report& report, Device& device, const std::string& lastModified) {
    const StorebagFetchStatus status = device.fetch(lastModified);
    const HttpResult& answer = device.answer();
    if (!answer) return report.warn("a request with If-Modified-Since: " + answer.error().description);
    if (answer->status == 304 && !status.notChanged) {
        return report.warn(
            "304 has no Last-Modified: devices take it for a bag without a signature, lose track of "
            "the date, and ask again after 900 s");
    }
    report.check(status.notChanged,
                 "an unchanged bag is answered " + std::to_string(answer->status) + " without a body",
                 "an unchanged bag is answered " + std::to_string(answer->status) +
                     " with its body: each device loads it at each fetch");
}

// A rollback to a file with an older date: the device's copy is newer than the file.
void judgeRollback(Report& report, Device& device) {
    const StorebagFetchStatus status = device.fetch(httpDateOfNow());
    const HttpResult& answer = device.answer();
    if (!answer)
        return report.warn("a request with a later If-Modified-Since: " + answer.error().description);
    report.check(
        !status.notChanged, "a device with a newer copy gets the bag",
        "a device with a newer copy is told that it is current: after a rollback to a file with an older "
        "date, devices keep the bad bag. \"telvora-bag publish\" and \"rollback\" always set a later date");
}

}  // namespace

int probe(const std::string& url, const std::string& publicKeyFile, const std::string& caFile) {
    if (faultOfRequest({.url = url}) || url.rfind('/') < originOfUrl(url).size() || url.ends_with('/') ||
        url.find('?') != std::string::npos)
        return complain(url + ": is no address of a bag, such as https://server/bags/NAME, without a query");
    setLogThreshold(kLogError - 1);  // the findings are printed instead
    Device device(url, caFile);
    const StorebagFetchStatus status = device.fetch(std::nullopt);
    const HttpResult first = device.answer();
    if (!first) return complain(url + ": " + first.error().description);
    std::cout << url << ": " << first->status << ", " << first->body.size() << " bytes\n";
    Report report;
    if (first->status < 200 || first->status > 299) {
        report.warn("the answer is " + std::to_string(first->status) +
                    ": devices get no bag, and ask again after 900 s");
        return kFound;
    }
    judgeBag(report, *first, publicKeyFile);
    judgeAge(report, *first, status.maxAge);
    if (status.lastModified) {
        report.say("Last-Modified: " + *status.lastModified);
        judgeUnchanged(report, device, *status.lastModified);
        judgeRollback(report, device);
    } else {
        report.warn("there is no Last-Modified: each device loads the bag at each fetch");
    }
    return report.found() ? kFound : kDone;
}

}  // namespace telvora::bag
