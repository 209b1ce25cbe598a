// SPDX-License-Identifier: Apache-2.0
//
// Laboratory: all servers that the daemon talks to, on this machine: keys, a bag server, a reporting server,
// a dashboard's collector, and servers for log data and for files.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "telvora-lab/bag_server.h"
#include "telvora-lab/dashboard_collector.h"
#include "telvora-lab/feed.h"
#include "telvora-lab/lab_pki.h"
#include "telvora-lab/log_data_server.h"
#include "telvora-lab/reporting_server.h"
#include "telvora-lab/upload_server.h"

namespace telvora::lab {

// Of the servers; 0: the kernel chooses.
struct Ports {
    int bags = 0;
    int reports = 0;
    int logData = 0;
    int uploads = 0;
    int dashboard = 0;  // UDP
};

struct LaboratoryOptions {
    ReportingServerOptions reporting = {};
    CollectorOptions collector = {};    // its address and port come from the options below
    std::string address = "127.0.0.1";  // IPv4, for all servers
    Ports ports = {};
    bool keepKeys = false;        // see LabPki::make()
    size_t keptBytes = SIZE_MAX;  // of files, and of log data; the oldest uploads are dropped
    Feed* feed = nullptr;         // gets a record of each arrival; must outlive the laboratory. May be null.
};

class Laboratory {
  public:
    // Writes the keys into `directory` and starts the servers. Fails with a reason.
    static tl::expected<std::unique_ptr<Laboratory>, std::string> make(const std::filesystem::path& directory,
                                                                       LaboratoryOptions options = {});

    const LabPki& pki() const { return pki_; }
    BagServer& bags() { return bags_; }
    ReportingServer& reports() { return reports_; }
    DashboardCollector& dashboard() { return dashboard_; }
    LogDataServer& logData() { return logData_; }
    UploadServer& uploads() { return uploads_; }

    // The ports in use.
    Ports ports() const;

    // Serves a bag after replacing its placeholders: "@events@" and "@realtime@" in all strings by the URLs
    // of the reporting server, "@logdata@" and "@upload@" by those of the servers for log data and for files,
    // and a string "@dashboard_port@" by the number of the collector's port.
    void setBag(const std::string& name, const Dictionary& bag) TELVORA_EXCLUDES(mutex_);
    // The bag as it was given to setBag(), or the inner bag of a signed document; `std::nullopt` if there is
    // no bag of that name. Callable from any thread.
    std::optional<Dictionary> bag(const std::string& name) const TELVORA_EXCLUDES(mutex_);
    // Whether the laboratory signs the bag of that name, with its own key. Callable from any thread.
    bool signs(const std::string& name) const TELVORA_EXCLUDES(mutex_);
    // A bag with its placeholders replaced. Callable from any thread.
    Dictionary filledIn(const Dictionary& bag) const;

  private:
    Laboratory(LabPki pki, LaboratoryOptions options);

    LabPki pki_;
    BagServer bags_;
    ReportingServer reports_;
    DashboardCollector dashboard_;
    LogDataServer logData_;
    UploadServer uploads_;
    mutable Mutex mutex_;
    std::map<std::string, Dictionary> given_ TELVORA_GUARDED_BY(mutex_);
};

}  // namespace telvora::lab
