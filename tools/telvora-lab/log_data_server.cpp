// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/log_data_server.h"

#include <tl/expected.hpp>
#include <utility>

#include "plist/property_list_format.h"
#include "telvora-lab/feed.h"

namespace telvora::lab {
namespace {

constexpr std::string_view kPath = "/logdata";
constexpr size_t kConnections = 4;

constexpr std::pair<std::string_view, LogDataFault> kFaultNames[] = {
    {"none", LogDataFault::none},
    {"emptyAnswer", LogDataFault::emptyAnswer},
    {"noAnswer", LogDataFault::noAnswer},
};

tl::expected<Array, std::string> recordsIn(const ServerRequest& request) {
    if (request.method != "POST" || request.path != kPath) {
        return tl::make_unexpected("unexpected " + request.method + " " + request.path);
    }
    if (request.header("Content-Type") != "application/octet-stream") {
        return tl::make_unexpected(std::string("wrong value of header Content-Type"));
    }
    if (request.header("Content-Encoding")) return tl::make_unexpected(std::string("a Content-Encoding"));
    if (!request.body.starts_with("bplist00")) return tl::make_unexpected(std::string("not bplist00"));
    const auto archive = parsePropertyList(request.body);
    if (!archive) return tl::make_unexpected(archive.error());
    const Array* records = archive->getIf<Array>();
    if (records == nullptr) return tl::make_unexpected(std::string("not an array"));
    return *records;
}

}  // namespace

template <>
NamedValues<LogDataFault> namedValues<LogDataFault>() {
    return kFaultNames;
}

LogDataServer::LogDataServer(const LabPki& pki, const Hosting& hosting)
    : feed_(hosting.feed),
      uploads_(hosting.keptBytes),
      server_(pki.serverCertificateFile(), pki.serverKeyFile(),
              [this](const ServerRequest& request) { return handle(request); },
              {.address = hosting.address, .port = hosting.port, .connections = kConnections}) {}

void LogDataServer::setFault(LogDataFault fault) {
    MutexLock lock(mutex_);
    fault_ = fault;
}

LogDataFault LogDataServer::fault() const {
    MutexLock lock(mutex_);
    return fault_;
}

std::vector<Array> LogDataServer::uploads() const {
    MutexLock lock(mutex_);
    return uploads_.kept();
}

std::vector<std::string> LogDataServer::problems() const {
    MutexLock lock(mutex_);
    return problems_;
}

ServerResponse LogDataServer::handle(const ServerRequest& request) {
    auto records = recordsIn(request);
    if (feed_ != nullptr) {
        Dictionary fields{{"bytes", request.body.size()}, {"fault", std::string(nameOf(fault()))}};
        fields.set(records ? "records" : "problem",
                   records ? PropertyList(*records) : PropertyList(records.error()));
        feed_->add("logData", std::move(fields));
    }
    ServerResponse response;
    MutexLock lock(mutex_);
    if (!records) {
        problems_.push_back(records.error());
        response.status = 400;
        return response;
    }
    uploads_.add(std::move(*records), request.body.size());
    if (fault_ == LogDataFault::noAnswer) response.ending = ServerResponse::Ending::noAnswer;
    if (fault_ == LogDataFault::none) response.body = location(uploads_.count());
    return response;
}

}  // namespace telvora::lab
