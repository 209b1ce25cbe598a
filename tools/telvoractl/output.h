// SPDX-License-Identifier: Apache-2.0
//
// Output of the commands: text for people, or JSON.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "json.h"

namespace telvora::ctl {

// Prints named values to standard output, each in one write: "name: value" for people, or {"name":value} as a
// line of JSON. An absent value is "none" or null. Thread-safe.
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

// The error of a flush that had no reports to post. Commands treat it as a success.
inline constexpr char kNothingToFlush[] = "Nothing to flush";

// Prints rows with aligned columns; the first row is the header.
void printTable(std::vector<std::vector<std::string>> rows);

// Text from outside, made safe for a terminal: control characters other than line feeds and tabs become \xNN.
std::string forTerminal(std::string_view text);

// Any value in one line, for people: a text unchanged, other values as JSON.
std::string textOf(const PropertyList& value);

// A progress line on standard error, if that is a terminal. It is updated at most ten times a second. Not
// thread-safe.
class Progress {
  public:
    explicit Progress(bool wanted = true);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& text);
    // Removes the line, before other output.
    void clear();

  private:
    const bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

// Runs work on another thread and waits for it; on a terminal, shows `activity` and the elapsed time.
void withProgress(const std::string& activity, const std::function<void()>& work);

}  // namespace telvora::ctl
