// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <future>

#include "util/utf8.h"

namespace telvora::ctl {

namespace {

void printNamed(const char* name, const std::string& value) {
    std::printf("%s: %s\n", name, forTerminal(value).c_str());
    std::fflush(stdout);
}

// The width of a text in characters on a terminal with UTF-8.
size_t widthOf(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace

void Printer::printText(const char* name, const std::optional<std::string>& value) {
    printNamed(name, value.value_or("none"));
}

void Printer::printText(const char* name, const ReportingStates& states) {
    std::string names;
    for (const std::string& state : states.value_or(std::vector<std::string>()))
        names += (names.empty() ? "" : ", ") + state;
    printNamed(name, names.empty() ? "none" : names);
}

void Printer::printText(const char* name, const FlushAnswer& answer) {
    if (answer.error && answer.error->description == kNothingToFlush) {
        printNamed(name, "no report was waiting");
    } else if (answer.error) {
        printNamed(name, answer.error->description + " (" + answer.error->domain + " " +
                             std::to_string(answer.error->code) + ")");
    } else {
        printText(name, answer.answer);
    }
}

void Printer::printText(const char* name, const AggregatedMessage& message) {
    printNamed(name, message.isEndMarker() ? "no more"
                                           : "category " + std::to_string(message.category) + ", type " +
                                                 std::to_string(message.type) + ", payload " +
                                                 (message.payload ? toJson(*message.payload) : "none"));
}

void printTable(std::vector<std::vector<std::string>> rows) {
    std::vector<size_t> widths;
    for (auto& row : rows) {
        std::ranges::transform(row, row.begin(),
                               [](const std::string& cell) { return escapeControlCharacters(cell); });
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] + 2 - widthOf(row[i]), ' ');
        }
        std::puts(line.c_str());
    }
    std::fflush(stdout);
}

std::string forTerminal(std::string_view text) {
    return escapeControlCharacters(text, "\n\t");
}

std::string textOf(const PropertyList& value) {
    const auto* text = value.getIf<std::string>();
    return text != nullptr ? *text : toJson(value);
}

Progress::Progress(bool wanted) : enabled_(wanted && isatty(STDERR_FILENO) != 0) {}

void Progress::show(const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    if (!enabled_ || now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    shown_ = true;
    std::fprintf(stderr, "\r\033[K%s", escapeControlCharacters(text).c_str());
    std::fflush(stderr);
}

void withProgress(const std::string& activity, const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    auto done = std::async(std::launch::async, work);
    Progress progress;
    while (done.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
        const auto elapsed = std::chrono::steady_clock::now() - begin;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
        progress.show(activity + ", " + std::to_string(seconds) + " s");
    }
    done.get();
}

void Progress::clear() {
    if (!shown_) return;
    shown_ = false;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
}

}  // namespace telvora::ctl
