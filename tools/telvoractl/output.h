// SPDX-License-Identifier: Apache-2.0
//
// What the commands print: text for people, or JSON.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "json.h"

namespace telvora::ctl {

// Prints named values to standard output, "name: value" for people or {"name":value} as a line of JSON; each
// goes out at once and whole. A value of nothing is "none" or null. Thread-safe.
class Printer {
  public:
    explicit Printer(bool json) : json_(json) {}

    template <typename T>
    void operator()(const char* name, const T& value) const {
        json_ ? printLine(name, value) : printText(name, value);
    }

  private:
    static void printText(const char* name, const std::optional<std::string>& value);
    static void printText(const char* name, const ReportingStates& states);
    static void printText(const char* name, const FlushAnswer& answer);
    static void printText(const char* name, const AggregatedMessage& message);

    bool json_;
};

// Prints rows whose columns are aligned; the first row is the head.
void printTable(std::vector<std::vector<std::string>> rows);

// Text from outside as a terminal may have it: of control characters only line feeds and tabs, the others as
// \xNN.
std::string forTerminal(std::string_view text);

// Any value in one line, for people: text as it is, all else as JSON.
std::string textOf(const PropertyList& value);

// A line on standard error that tells how far something has come, where that is a terminal; it is written
// anew ten times a second at most. Not thread-safe.
class Progress {
  public:
    explicit Progress(bool wanted = true);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& text);
    // Before anything else is printed.
    void clear();

  private:
    const bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace telvora::ctl
