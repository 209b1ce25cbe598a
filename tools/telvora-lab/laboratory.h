// SPDX-License-Identifier: Apache-2.0
//
// Laboratory: all servers that the daemon talks to, on this machine: keys, a bag server, a reporting server,
// a dashboard's collector, and servers for log data and for files.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <tl/expected.hpp>

#include "telvora-lab/bag_server.h"
#include "telvora-lab/dashboard_collector.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/log_data_server.h"
#include "telvora-lab/reporting_server.h"
#include "telvora-lab/upload_server.h"

namespace telvora::lab {

class Laboratory {
  public:
    // Writes the keys into `directory` and starts the servers. Fails with a reason.
    static tl::expected<std::unique_ptr<Laboratory>, std::string> make(
        const std::filesystem::path& directory, ReportingServerOptions reportingOptions = {},
        CollectorOptions collectorOptions = {});

    const LabPki& pki() const { return pki_; }
    BagServer& bags() { return bags_; }
    ReportingServer& reports() { return reports_; }
    DashboardCollector& dashboard() { return dashboard_; }
    LogDataServer& logData() { return logData_; }
    UploadServer& uploads() { return uploads_; }

    // Serves a bag after replacing its placeholders: "@events@" and "@realtime@" in all strings by the URLs
    // of the reporting server, "@logdata@" and "@upload@" by those of the servers for log data and for files,
    // and a string "@dashboard_port@" by the number of the collector's port.
    void setBag(const std::string& name, const Dictionary& bag);

  private:
    Laboratory(LabPki pki, ReportingServerOptions reportingOptions, CollectorOptions collectorOptions)
        : pki_(std::move(pki)),
          bags_(pki_),
          reports_(pki_, std::move(reportingOptions)),
          dashboard_(std::move(collectorOptions)),
          logData_(pki_),
          uploads_(pki_) {}

    LabPki pki_;
    BagServer bags_;
    ReportingServer reports_;
    DashboardCollector dashboard_;
    LogDataServer logData_;
    UploadServer uploads_;
};

}  // namespace telvora::lab
