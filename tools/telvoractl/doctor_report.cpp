// SPDX-License-Identifier: Apache-2.0
#include "doctor_report.h"

#include <langinfo.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>

#include "output.h"

namespace telvora::ctl {

namespace {

constexpr std::array kStepNames = {"socket", "entitlement", "daemon",   "settings", "key",     "bag",
                                   "fetch",  "signature",   "section",  "entry",    "consent", "country",
                                   "device", "lists",       "sampling", "server",   "answers"};
constexpr int kFirstStep = static_cast<int>(DoctorStep::socket);
static_assert(kFirstStep + kStepNames.size() == static_cast<int>(DoctorStep::answers) + 1);

const char* nameOf(DoctorStep step) {
    return kStepNames.at(static_cast<size_t>(static_cast<int>(step) - kFirstStep));
}

// The marks of a good, a bad and an unknown step, and of a remedy.
struct Marks {
    std::array<const char*, 3> results;
    const char* remedy;
};

Marks marksOfTerminal() {
    std::setlocale(LC_CTYPE, "");
    const bool utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    return utf8 ? Marks{{"✔", "✘", "?"}, "→"} : Marks{{"+", "x", "?"}, "->"};
}

}  // namespace

bool DoctorReport::isBad(DoctorStep step) const {
    const auto found = findings_.find(step);
    return found != findings_.end() &&
           std::ranges::any_of(found->second, [](const Finding& f) { return f.result == Result::bad; });
}

std::map<DoctorStep, std::vector<DoctorReport::Finding>> DoctorReport::complete() const {
    auto all = findings_;
    for (size_t i = 0; i < kStepNames.size(); ++i) {
        auto& findings = all[static_cast<DoctorStep>(kFirstStep + static_cast<int>(i))];
        if (findings.empty()) findings.push_back({Result::unknown, "", rest_, ""});
    }
    return all;
}

void DoctorReport::print(bool json) const {
    const Marks marks = marksOfTerminal();
    Array steps;
    for (const auto& [step, findings] : complete()) {
        for (const Finding& finding : findings) {
            const auto result = static_cast<size_t>(finding.result);
            if (json) {
                static constexpr const char* kResults[] = {"good", "bad", "unknown"};
                Dictionary described{{"step", static_cast<int>(step)},
                                     {"name", nameOf(step)},
                                     {"result", kResults[result]},
                                     {"cause", finding.cause}};
                if (!finding.remedy.empty()) described.set("remedy", finding.remedy);
                if (!finding.backend.empty()) described.set("backend", finding.backend);
                steps.emplace_back(std::move(described));
                continue;
            }
            const std::string about = finding.backend.empty() ? "" : finding.backend + ": ";
            std::printf("%d %s %-12s %s\n", static_cast<int>(step), marks.results.at(result), nameOf(step),
                        forTerminal(about + finding.cause).c_str());
            if (!finding.remedy.empty())
                std::printf("%18s%s %s\n", "", marks.remedy, forTerminal(finding.remedy).c_str());
        }
    }
    if (json) std::puts(toJson(steps).c_str());
}

int DoctorReport::status() const {
    for (const auto& [step, findings] : findings_) {
        if (isBad(step)) return static_cast<int>(step);
    }
    return 0;
}

}  // namespace telvora::ctl
