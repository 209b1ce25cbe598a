// SPDX-License-Identifier: Apache-2.0
//
// What is wrong with a bag, as far as the bag alone tells: keys that nobody reads, values of the wrong type
// or out of range, entries and filters that can never come to their turn, lists that let nothing pass.
#pragma once

#include <string>
#include <vector>

#include "plist/property_list.h"

namespace telvora::bag {

enum class Severity {
    warning,  // does not do all that it seems to
    error,    // does nothing at all, or keeps reports from being sent
};

struct Finding {
    std::string path;  // "release/httpPost/clients[0]/filters[2]/action"; empty: the document
    Severity severity;
    std::string text;
};

// Everything there is to say of an inner bag, in the order of its keys.
std::vector<Finding> lintBag(const Dictionary& bag);

// The same of what a file holds, which may be a signed document or a bag.
std::vector<Finding> lintDocument(const Dictionary& document);

}  // namespace telvora::bag
