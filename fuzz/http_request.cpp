// SPDX-License-Identifier: Apache-2.0
//
// The rules for URLs and headers of requests, compared with the URL reader of the library that sends them:
// both must see the same server, as the shares of servers depend on it.
#include <curl/curl.h>

#include <memory>

#include "fuzz/target.h"
#include "http/http_request_rules.h"
#include "util/ascii.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string partOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
    const std::string copy = text;
    curl_free(text);
    return copy;
}

// The library decodes "%41" in hosts, reads numbers such as "0x7f.1" as addresses, and shortens those in
// brackets.
bool isPlainHost(std::string_view server) {
    const std::string_view host = server.substr(server.find("://") + 3);
    return host.find_first_of("%[") == std::string_view::npos &&
           host.substr(0, host.rfind(':')).find_first_of("ghijklmnopqrstuvwyz") != std::string_view::npos;
}

}  // namespace

void tryInput(std::string_view bytes) {
    Input input(bytes);
    HttpRequest request;
    request.url = input.line();
    while (!input.empty()) {
        const std::string_view line = input.line();
        const size_t colon = std::min(line.find(':'), line.size());
        request.headers.emplace_back(line.substr(0, colon), line.substr(std::min(colon + 1, line.size())));
    }
    if (faultOfRequest(request)) return;
    for (const auto& [name, value] : request.headers) {
        require(
            !name.empty() && (name + value).find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos,
            "no header makes another");
    }
    const std::string_view origin = originOfUrl(request.url);
    require(!origin.empty() && request.url.starts_with(origin), "an origin begins its URL");
    const std::string server = serverOfUrl(request.url);
    require(serverOfUrl(server) == server && asciiLowerCase(server) == server, "a server has one name");

    const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
    if (curl_url_set(url.get(), CURLUPART_URL, request.url.c_str(), 0) != CURLUE_OK) return;
    if (!isPlainHost(server)) return;
    const std::string seen = asciiLowerCase(partOf(url.get(), CURLUPART_SCHEME)) + "://" +
                             asciiLowerCase(partOf(url.get(), CURLUPART_HOST)) + ":" +
                             partOf(url.get(), CURLUPART_PORT);
    if (seen != server) std::fprintf(stderr, "%s / %s\n", server.c_str(), seen.c_str());
    require(seen == server, "the library connects to the server that is counted");
}

}  // namespace telvora::fuzz
