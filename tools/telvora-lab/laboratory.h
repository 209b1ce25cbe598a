// SPDX-License-Identifier: Apache-2.0
//
// Laboratory: the outside world of the daemon in one object, all of it on this machine: keys, a bag server
// and a reporting server.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <tl/expected.hpp>

#include "telvora-lab/bag_server.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/reporting_server.h"

namespace telvora::lab {

class Laboratory {
  public:
    // Writes the keys into `directory` and starts the servers. Fails with a reason.
    static tl::expected<std::unique_ptr<Laboratory>, std::string> make(
        const std::filesystem::path& directory, ReportingServerOptions reportingOptions = {});

    const LabPki& pki() const { return pki_; }
    BagServer& bags() { return bags_; }
    ReportingServer& reports() { return reports_; }

    // Serves a bag after replacing "@events@" and "@realtime@" in all its strings by the URLs of the
    // reporting server, which no file can know.
    void setBag(const std::string& name, const Dictionary& bag);

  private:
    Laboratory(LabPki pki, ReportingServerOptions reportingOptions)
        : pki_(std::move(pki)), bags_(pki_), reports_(pki_, std::move(reportingOptions)) {}

    LabPki pki_;
    BagServer bags_;
    ReportingServer reports_;
};

}  // namespace telvora::lab
