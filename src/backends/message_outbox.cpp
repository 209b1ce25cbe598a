// SPDX-License-Identifier: Apache-2.0
#include "backends/message_outbox.h"

#include "http/http_request_rules.h"

namespace telvora {

bool mayBePostedLater(const HttpRequest& request, const HttpResult& result) {
    if (!result) return result.error().kind != HttpError::Kind::notSent || !faultOfRequest(request);
    const int status = result->status;
    return status == 408 || status == 425 || status == 429 || (status >= 500 && status <= 599);
}

}  // namespace telvora
