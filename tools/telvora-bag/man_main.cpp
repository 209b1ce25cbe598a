// SPDX-License-Identifier: Apache-2.0
//
// storebag-man TEMPLATE: prints a manual page, mdoc(7). Replaces each line `.\" keys: KIND` of the template
// with the table of that kind of dictionary. The build runs it, so that the page and lint agree.
#include <fstream>
#include <iostream>
#include <string>

#include "telvora-bag/bag_keys.h"

namespace telvora::bag {

namespace {

constexpr std::string_view kMark = ".\\\" keys: ";

// Breaks text into one sentence a line and limits the length of lines, as mdoc(7) asks for.
std::string sentences(std::string text) {
    constexpr size_t kWidth = 78;
    size_t lineStart = 0;
    size_t lastBlank = std::string::npos;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ') lastBlank = i;
        const bool isEndOfSentence = text[i] == ' ' && i > 0 && text[i - 1] == '.';
        if (!isEndOfSentence && (i - lineStart < kWidth || lastBlank == std::string::npos)) continue;
        text[lastBlank] = '\n';
        lineStart = lastBlank + 1;
        lastBlank = std::string::npos;
    }
    return text + "\n";
}

std::string number(double value) {
    return std::to_string(static_cast<long long>(value));
}

void printTable(std::ostream& out, const DictionaryKind& kind) {
    if (kind.keys.empty()) return;
    out << ".Bl -tag -width Ds\n";
    for (const KeyRule& rule : kind.keys) {
        out << ".It Sy " << rule.key << " Pq " << nameOf(rule.type);
        if (rule.lowest != rule.highest) out << ", " << number(rule.lowest) << " to " << number(rule.highest);
        out << '\n'
            << sentences(std::string(rule.meaning)) << sentences("Absent: " + std::string(rule.absent) + ".");
    }
    out << ".El\n";
}

const DictionaryKind* kindNamed(std::string_view name) {
    for (const DictionaryKind* kind : allDictionaryKinds()) {
        if (kind->name == name) return kind;
    }
    return nullptr;
}

int print(std::istream& page) {
    size_t tables = 0;
    for (std::string line; std::getline(page, line);) {
        if (!line.starts_with(kMark)) {
            std::cout << line << '\n';
            continue;
        }
        const DictionaryKind* kind = kindNamed(std::string_view(line).substr(kMark.size()));
        if (kind == nullptr) {
            std::cerr << "storebag-man: no such kind: " << line << '\n';
            return 1;
        }
        printTable(std::cout, *kind);
        ++tables;
    }
    if (tables == allDictionaryKinds().size()) return 0;
    std::cerr << "storebag-man: the page does not have every table once\n";
    return 1;
}

}  // namespace

}  // namespace telvora::bag

int main(int argc, char** argv) {
    std::ifstream page(argc == 2 ? argv[1] : "");
    if (!page) {
        std::cerr << "usage: storebag-man TEMPLATE\n";
        return 1;
    }
    return telvora::bag::print(page);
}
