// SPDX-License-Identifier: Apache-2.0
//
// The findings of the doctor, by step of a report's way.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace telvora::ctl {

// The numbers are exit statuses, above those of all commands. telvoractl(1) lists them.
enum class DoctorStep : int {
    socket = 11,
    entitlement,
    daemon,
    settings,
    key,
    bag,
    fetch,
    signature,
    section,
    entry,
    consent,
    country,
    device,
    lists,
    sampling,
    server,
    answers,
};

class DoctorReport {
  public:
    // The texts come from outside in part; print() makes them safe for a terminal.
    void good(DoctorStep step, std::string cause) { add(step, Result::good, std::move(cause)); }
    void bad(DoctorStep step, std::string cause, std::string remedy) {
        add(step, Result::bad, std::move(cause), std::move(remedy));
    }
    void unknown(DoctorStep step, std::string cause) { add(step, Result::unknown, std::move(cause)); }

    // The backend that the next findings are about; empty: all.
    void setBackend(std::string backend) { backend_ = std::move(backend); }
    // The cause for the steps without a finding.
    void setRest(std::string cause) { rest_ = std::move(cause); }
    bool has(DoctorStep step) const { return findings_.contains(step); }
    bool isBad(DoctorStep step) const;

    // Prints all steps in their order.
    void print(bool json) const;
    // The number of the first step that failed, or 0.
    int status() const;

  private:
    enum class Result { good, bad, unknown };
    struct Finding {
        Result result;
        std::string backend, cause, remedy;
    };

    void add(DoctorStep step, Result result, std::string cause, std::string remedy = {}) {
        findings_[step].push_back({result, backend_, std::move(cause), std::move(remedy)});
    }
    std::map<DoctorStep, std::vector<Finding>> complete() const;

    std::string backend_;
    std::string rest_ = "not reached";
    std::map<DoctorStep, std::vector<Finding>> findings_;
};

}  // namespace telvora::ctl
