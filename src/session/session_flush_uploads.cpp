// SPDX-License-Identifier: Apache-2.0
//
// Operations on all backends at once: flush, finish and uploads.
#include <atomic>

#include "session/telvorad_session.h"
#include "util/attempt.h"
#include "util/file_url.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr char kNoBackends[] = "No backends available to send message";

// A flush in progress.
struct PendingFlush {
    size_t open = 0;  // parts that have not completed yet
    FlushReply completion;
};

// Guards every PendingFlush. Flushes are rare enough for one lock.
Mutex flushCountersLock;

// One backend's part of a flush. It fails if it is destroyed before it has completed, which only a lack of
// memory can cause.
class FlushPart {
  public:
    explicit FlushPart(std::shared_ptr<PendingFlush> flush) : flush_(std::move(flush)) {
        const MutexLock lock(flushCountersLock);
        ++flush_->open;
    }
    ~FlushPart() {
        attempt("internalFlushMessagesWithCompletion", [this] {
            // An exception on the way destroys the reply, and that fails the client's call.
            if (const FlushReply reply = takeReply(true))
                reply(std::nullopt, makeTelvoraError("There is no memory for the flush", -1));
        });
    }
    FlushPart(const FlushPart&) = delete;
    FlushPart& operator=(const FlushPart&) = delete;

    // Answers the client if its answer is due now. Only the first completion counts.
    void complete(std::optional<std::string> answer, std::optional<TelvoraError> error) {
        if (const FlushReply reply = takeReply(error.has_value())) reply(std::move(answer), std::move(error));
    }

  private:
    // The client's reply if it is due with this completion, else an empty one.
    FlushReply takeReply(bool failed) {
        if (completed_.exchange(true)) return {};
        const MutexLock lock(flushCountersLock);
        if (--flush_->open > 0 && !failed) return {};
        return std::exchange(flush_->completion, {});
    }

    const std::shared_ptr<PendingFlush> flush_;
    std::atomic<bool> completed_ = false;
};

}  // namespace

void TelvoradSession::flushMessagesWithCompletion(FlushReply completion) {
    TELVORA_LOG(kLogDebug, "flushMessagesWithCompletion: Flushing messages for session %u", sessionID());
    internalFlushMessagesWithCompletion(std::move(completion));
}

// Answers the client once: when the first backend fails, or else when the last one completes. A flush without
// any backends is never answered.
void TelvoradSession::internalFlushMessagesWithCompletion(FlushReply completion) {
    const auto current = backends();
    if (!current) {
        TELVORA_LOG(kLogDebug, "internalFlushMessagesWithCompletion: %s", kNoBackends);
        if (completion) completion(std::nullopt, makeTelvoraError(kNoBackends, -1));
        return;
    }
    const auto flush = std::make_shared<PendingFlush>();
    flush->completion = std::move(completion);
    // All parts before the first backend begins: a part that completes alone is not the last one.
    std::vector<std::shared_ptr<FlushPart>> parts;
    for (size_t i = 0; i < current->size(); ++i)
        parts.push_back(std::make_shared<FlushPart>(flush));
    auto next = parts.begin();
    for (const auto& [name, backend] : *current) {
        auto reported = [part = std::move(*next++), key = name, backendName = backend->name(), uid = uid_,
                         &messageLog = services_.messageLog](std::optional<std::string> answer,
                                                             std::optional<TelvoraError> error) {
            TELVORA_LOG(kLogDebug, "internalFlushMessagesWithCompletion: %s", backendName.c_str());
            if (answer)
                TelvoradUtil::writeToLogFile(messageLog, {"[", key, " -> flushMessages] ", *answer}, uid);
            part->complete(std::move(answer), std::move(error));
        };
        attempt("internalFlushMessagesWithCompletion",
                [&, target = backend] { target->flushMessagesWithCompletion(std::move(reported)); });
    }
}

void TelvoradSession::finishSessionWithReply(StringReply reply) {
    TELVORA_LOG(kLogDebug, "finishSessionWithReply: Finishing session %u", sessionID());
    reply(sendMessage(0, 2, std::nullopt));
}

void TelvoradSession::uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                       UploadFileReply completionHandler) {
    TELVORA_LOG(kLogDebug, "uploadFileAtPath: Uploading file for session %u", sessionID());
    uploadFileWithURL(fileURL, extensionToken, std::move(completionHandler));
}

void TelvoradSession::uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                                        UploadFileReply completionHandler) {
    const FileUpload upload{pathOfFileURL(fileURL), extensionToken, clientFiles_, performOnStrand()};
    const auto start = [upload](TelvoraBackend& backend, UploadCompletion done) {
        backend.uploadFileAtPath(upload, std::move(done));
    };
    uploadThroughBackends(start, [self = shared_from_this(), upload, fileURL,
                                  reply = std::move(completionHandler)](bool uploaded) {
        self->clientFiles_->releaseExtension(upload.extensionToken);  // if no backend consumed it
        if (uploaded) {
            TELVORA_LOG(kLogDebug, "uploadFileWithURL: File upload successful for %s", upload.path.c_str());
        } else {
            TELVORA_LOG(kLogError, "uploadFileWithURL: File upload failed for %s", upload.path.c_str());
        }
        TelvoradUtil::writeToLogFile(self->services_.messageLog,
                                     {"[uploadFileWithURL] Upload ", uploaded ? "succeeded" : "failed",
                                      " for file ", textOfURL(fileURL)},
                                     self->uid_);
        reply(uploaded);
    });
}

void TelvoradSession::uploadLogData(Array records, UploadLogDataReply completionHandler) {
    const auto start = [records = std::move(records), perform = performOnStrand()](TelvoraBackend& backend,
                                                                                   UploadCompletion done) {
        backend.uploadLogData(records, perform, std::move(done));
    };
    uploadThroughBackends(start, [reply = std::move(completionHandler)](bool uploaded) {
        if (uploaded) {
            TELVORA_LOG(kLogDebug, "uploadLogData: Log data array upload successful");
        } else {
            TELVORA_LOG(kLogError, "uploadLogData: Log data array upload failed");
        }
        reply(uploaded, std::nullopt);
    });
}

Perform TelvoradSession::performOnStrand() const {
    return [connection = connection_](std::function<void()> work) { connection->perform(std::move(work)); };
}

void TelvoradSession::uploadThroughBackends(UploadStart start, UploadCompletion done) {
    const auto run = std::make_shared<UploadRun>(UploadRun{backends(), std::move(start), std::move(done)});
    if (run->backends) run->next = run->backends->begin();
    continueUpload(run, false);
}

// Starts the upload through the next backend once the one before has completed.
void TelvoradSession::continueUpload(const std::shared_ptr<UploadRun>& run, bool uploaded) {
    run->uploaded = run->uploaded || uploaded;
    if (!run->backends || run->next == run->backends->end()) return run->done(run->uploaded);
    TelvoraBackend& backend = *(run->next++)->second;
    run->start(backend, [run](bool one) { continueUpload(run, one); });
}

}  // namespace telvora
