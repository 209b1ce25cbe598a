// SPDX-License-Identifier: Apache-2.0
#include "json/report_json.h"

#include <cstdint>

#include "json/json_reader.h"
#include "telvora/keys.h"

namespace telvora {

tl::expected<Dictionary, std::string> messageOfJson(std::string_view text) {
    const auto parsed = parseJson(text);
    if (!parsed) return tl::unexpected(parsed.error());
    const auto* object = parsed->getIf<Dictionary>();
    if (object == nullptr) return tl::unexpected(std::string("not an object"));

    const auto failure = [](const std::string& key, const char* problem) {
        return tl::unexpected("\"" + key + "\" " + problem);
    };
    Dictionary message;
    for (const auto& [key, value] : *object) {
        const auto* integer = value.getIf<int64_t>();
        if (key == "payload") {
            if (!value.is<Dictionary>()) return failure(key, "is not an object");
            message.set(kTelvoraMessageParametersPayload, value);
        } else if (key == "category" || key == "type") {
            if (integer == nullptr || *integer < 0 || *integer > UINT16_MAX) {
                return failure(key, "is not an integer from 0 to 65535");
            }
            message.set(key == "type" ? kTelvoraMessageParametersType : kTelvoraMessageParametersCategory,
                        value);
        } else if (key == "flag") {
            if (integer == nullptr || *integer < 0 || *integer > UINT32_MAX) {
                return failure(key, "is not an integer from 0 to 4294967295");
            }
            message.set(kTelvoraMessageParametersFlag, value);
        } else {
            return failure(key, "is unknown (known: category, type, payload, flag)");
        }
    }
    for (const char* key : {"category", "type"}) {
        if (!object->contains(key)) return failure(key, "is missing");
    }
    return message;
}

}  // namespace telvora
