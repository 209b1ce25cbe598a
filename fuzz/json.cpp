// SPDX-License-Identifier: Apache-2.0
//
// JSON of the tools: reports, and bags as JSON. What is read, written and read again is equal, and lint names
// a place for each finding about any bag.
#include "fuzz/target.h"
#include "json/json_reader.h"
#include "json/report_json.h"
#include "plist/json_writer.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/lint.h"
#include "util/utf8.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.5;

void tryInput(std::string_view bytes) {
    const auto report = messageOfJson(bytes);
    require(report || !report.error().empty(), "a failure has a reason");
    const auto value = parseJson(bytes);
    if (!value) {
        require(value.error().find(" (at byte ") != std::string::npos, "a failure has a place");
        return;
    }
    for (const JsonLayout layout : {JsonLayout::compact, JsonLayout::pretty}) {
        const auto again = parseJson(jsonText(*value, layout));
        require(again && *again == *value, "a value read again is equal");
    }
    const auto* bag = value->getIf<Dictionary>();
    if (bag == nullptr) return;
    for (const bag::Finding& finding : bag::lintBag(*bag))
        require(!finding.text.empty() && isValidUtf8(finding.text + finding.path), "a finding has a text");
    if (!bag::isJson(bytes)) return;
    const auto document = bag::bytesToSign(bytes, *bag);
    if (!document) return;
    const auto read = bag::parsePlist("bag", *document);
    require(read && *read == *bag, "a bag in JSON is signed as it is");
}

}  // namespace telvora::fuzz
