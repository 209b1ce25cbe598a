// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/upload_server.h"

#include <utility>

#include "telvora-lab/feed.h"

namespace telvora::lab {
namespace {

constexpr std::pair<std::string_view, UploadAnswer> kAnswerNames[] = {
    {"success", UploadAnswer::success},
    {"failed", UploadAnswer::failed},
    {"notUtf8", UploadAnswer::notUtf8},
    {"empty", UploadAnswer::empty},
    {"halfAnswer", UploadAnswer::halfAnswer},
    {"noAnswer", UploadAnswer::noAnswer},
    {"hold", UploadAnswer::hold},
};

ServerResponse responseFor(UploadAnswer answer) {
    ServerResponse response;
    response.contentType = "application/json";
    response.body = R"({"success":true})";
    if (answer == UploadAnswer::failed) response.body = R"({"status":"failed"})";
    if (answer == UploadAnswer::notUtf8) response.body = "\xff\xfe";
    if (answer == UploadAnswer::empty) response.body.clear();
    if (answer == UploadAnswer::halfAnswer) response.ending = ServerResponse::Ending::halfBody;
    if (answer == UploadAnswer::noAnswer) response.ending = ServerResponse::Ending::noAnswer;
    return response;
}

}  // namespace

template <>
NamedValues<UploadAnswer> namedValues<UploadAnswer>() {
    return kAnswerNames;
}

UploadServer::UploadServer(const LabPki& pki, const Hosting& hosting)
    : feed_(hosting.feed),
      uploads_(hosting.keptBytes),
      server_(pki.serverCertificateFile(), pki.serverKeyFile(),
              [this](const ServerRequest& request) { return handle(request); },
              {.address = hosting.address, .port = hosting.port}) {}

UploadServer::~UploadServer() {
    setAnswer(UploadAnswer::success);
    releaseHeld();
}

void UploadServer::setAnswer(UploadAnswer answer) {
    MutexLock lock(mutex_);
    answer_ = answer;
}

UploadAnswer UploadServer::answer() const {
    MutexLock lock(mutex_);
    return answer_;
}

void UploadServer::releaseHeld() {
    MutexLock lock(mutex_);
    ++releases_;
    changed_.notify_all();
}

ServerResponse UploadServer::handle(const ServerRequest& request) {
    if (request.method != "POST" || request.path != "/upload") {
        ServerResponse response;
        response.status = 404;
        return response;
    }
    UploadAnswer answer;
    uint64_t releases;
    {
        MutexLock lock(mutex_);
        uploads_.add(request, request.body.size());
        changed_.notify_all();
        answer = answer_;
        releases = releases_;
    }
    if (feed_ != nullptr) {
        feed_->add("upload", {{"target", request.target},
                              {"bytes", request.body.size()},
                              {"fault", std::string(nameOf(answer))}});
    }
    if (answer == UploadAnswer::hold) {
        MutexLock lock(mutex_);
        while (releases_ == releases)
            changed_.wait(mutex_);
    }
    return responseFor(answer);
}

std::vector<ServerRequest> UploadServer::uploads() const {
    MutexLock lock(mutex_);
    return uploads_.kept();
}

size_t UploadServer::uploadCount() const {
    MutexLock lock(mutex_);
    return uploads_.count();
}

bool UploadServer::waitForUploads(size_t count, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (uploads_.count() < count) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout)
            return uploads_.count() >= count;
    }
    return true;
}

}  // namespace telvora::lab
