// SPDX-License-Identifier: Apache-2.0

#include <string>

#include "plist/json_writer.h"
#include "telvora-bag/commands.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/lint.h"
#include "util/utf8.h"

namespace telvora::bag {

namespace {

const char* nameOf(Severity severity) {
    return severity == Severity::error ? "error" : "warning";
}

std::string asJson(const std::vector<Finding>& findings) {
    Array list;
    for (const Finding& finding : findings) {
        list.push_back(Dictionary{
            {"path", finding.path}, {"severity", nameOf(finding.severity)}, {"text", finding.text}});
    }
    return escapeControlCharactersInJson(jsonText(Dictionary{{"findings", std::move(list)}})) + "\n";
}

}  // namespace

std::string textOf(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings)
        text +=
            escapeControlCharacters(finding.path + ": " + nameOf(finding.severity) + ": " + finding.text) +
            "\n";
    return text;
}

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
    const auto written = writeFile("-", json ? asJson(findings) : textOf(findings));
    if (!written) return complain(written.error());
    return findings.empty() ? kDone : kFound;
}

}  // namespace telvora::bag
