// SPDX-License-Identifier: Apache-2.0
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>

#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/lint.h"

namespace telvora::bag {

namespace {

const char* nameOf(Severity severity) {
    return severity == Severity::error ? "error" : "warning";
}

std::string asText(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings)
        text += finding.path + ": " + nameOf(finding.severity) + ": " + finding.text + "\n";
    return text;
}

std::string asJson(const std::vector<Finding>& findings) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> out(buffer);
    const auto member = [&out](const char* name, const std::string& value) {
        out.Key(name);
        out.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
    };
    out.StartObject();
    out.Key("findings");
    out.StartArray();
    for (const Finding& finding : findings) {
        out.StartObject();
        member("path", finding.path);
        member("severity", nameOf(finding.severity));
        member("text", finding.text);
        out.EndObject();
    }
    out.EndArray();
    out.EndObject();
    return buffer.GetString() + std::string("\n");
}

}  // namespace

int lint(const std::string& file, bool json) {
    const auto document = readFile(file);
    if (!document) return complain(document.error());
    const auto bag = parseDictionary(file, *document);
    if (!bag) return complain(bag.error());
    std::vector<Finding> findings = lintDocument(*bag);
    if (!isSignedDocument(*bag)) {
        if (const auto bytes = bytesToSign(*document, *bag); !bytes)
            findings.push_back({"bag", Severity::error, bytes.error()});
    }
    const auto written = writeFile("-", json ? asJson(findings) : asText(findings));
    if (!written) return complain(written.error());
    return findings.empty() ? kDone : kFound;
}

}  // namespace telvora::bag
