// SPDX-License-Identifier: Apache-2.0
//
// Findings about a bag that need no device and no session: unknown keys, values of the wrong type or out of
// range, entries and filters that never apply, and lists that let no report pass.
#pragma once

#include <string>
#include <vector>

#include "plist/property_list.h"

namespace telvora::bag {

enum class Severity {
    warning,  // has less effect than it seems to have
    error,    // has no effect, or keeps reports from being sent
};

struct Finding {
    std::string path;  // "release/httpPost/clients[0]/filters[2]/action"; empty: the document
    Severity severity;
    std::string text;
};

// All findings about an inner bag, in the order of its keys.
std::vector<Finding> lintBag(const Dictionary& bag);

// All findings about a file, which may be a signed document or a bag.
std::vector<Finding> lintDocument(const Dictionary& document);

}  // namespace telvora::bag
