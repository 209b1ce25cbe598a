// SPDX-License-Identifier: Apache-2.0
//
// The rules of lint. Each adds its findings.
#pragma once

#include "policy/client_entry.h"
#include "telvora-bag/bag_keys.h"
#include "telvora-bag/lint.h"
#include "telvora-bag/texts.h"

namespace telvora::bag {

class Findings {
  public:
    void error(std::string path, std::string text) {
        add({std::move(path), Severity::error, std::move(text)});
    }
    void warn(std::string path, std::string text) {
        add({std::move(path), Severity::warning, std::move(text)});
    }
    void add(Finding finding) { list_.push_back(std::move(finding)); }
    std::vector<Finding> take() { return std::move(list_); }

  private:
    std::vector<Finding> list_;
};

inline std::string element(const std::string& path, size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

// Checks a text of a type with a syntax of its own: lists, URLs, addresses, versions.
void lintText(const std::string& path, std::string_view text, ValueType type, Findings& findings);

// Checks the entries of "clients" against each other.
void lintEntries(const std::string& path, const Array& clients, Findings& findings);

// Checks the keys of one entry against each other.
void lintEntry(const std::string& path, const Dictionary& client, Findings& findings);

// Checks the filters of one entry.
void lintFilters(const std::string& path, const ClientEntry& entry, Findings& findings);

}  // namespace telvora::bag
