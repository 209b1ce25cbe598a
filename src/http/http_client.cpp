// SPDX-License-Identifier: Apache-2.0
#include "http/http_client.h"

#include <future>

#include "async/work_pool.h"
#include "util/ascii.h"

namespace telvora {

std::optional<std::string_view> HttpResponse::header(std::string_view name) const {
    for (const auto& [headerName, value] : headers) {
        if (equalsIgnoringAsciiCase(headerName, name)) return value;
    }
    return std::nullopt;
}

std::string HttpResponse::listHeader(std::string_view name) const {
    std::string list;
    for (const auto& [headerName, value] : headers) {
        if (equalsIgnoringAsciiCase(headerName, name)) list += (list.empty() ? "" : ", ") + value;
    }
    return list;
}

HttpResult performBlocking(HttpClient& client, HttpRequest request) {
    auto promise = std::make_shared<std::promise<HttpResult>>();
    std::future<HttpResult> future = promise->get_future();
    const BlockingSection blocking;
    client.start(std::move(request), [promise = std::move(promise)](HttpResult result) {
        promise->set_value(std::move(result));
    });
    try {
        return future.get();
    } catch (const std::future_error&) {  // the client dropped the completion
        return tl::unexpected(HttpError{-1, "the HTTP client gave the request up"});
    }
}

}  // namespace telvora
