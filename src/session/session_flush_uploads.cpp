// SPDX-License-Identifier: Apache-2.0
//
// Operations on all backends at once: flush, finish and uploads.
#include "session/telvorad_session.h"
#include "util/file_url.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr char kNoBackends[] = "No backends available to send message";

// A flush in progress.
struct PendingFlush {
    size_t backends;  // that have not completed yet
    FlushReply completion;
};

// Guards every PendingFlush. Flushes are rare enough for one lock.
Mutex flushCountersLock;

// Counts the completion of one backend. Returns the client's completion if that is due now, else an empty
// one.
FlushReply takeCompletion(PendingFlush& flush, bool failed) {
    const MutexLock lock(flushCountersLock);
    --flush.backends;
    if (!failed && flush.backends > 0) return {};
    return std::exchange(flush.completion, {});
}

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
    const auto flush = std::make_shared<PendingFlush>(PendingFlush{current->size(), std::move(completion)});
    for (const auto& [name, backend] : *current) {
        auto reported = [flush, key = name, backendName = backend->name(), uid = uid_,
                         &messageLog = services_.messageLog](std::optional<std::string> answer,
                                                             std::optional<TelvoraError> error) {
            TELVORA_LOG(kLogDebug, "internalFlushMessagesWithCompletion: %s", backendName.c_str());
            if (answer)
                TelvoradUtil::writeToLogFile(messageLog, "[" + key + " -> flushMessages] " + *answer, uid);
            const FlushReply reply = takeCompletion(*flush, error.has_value());
            if (reply) reply(std::move(answer), std::move(error));
        };
        backend->flushMessagesWithCompletion(std::move(reported));
    }
}

void TelvoradSession::finishSessionWithReply(StringReply reply) {
    TELVORA_LOG(kLogDebug, "finishSessionWithReply: Finishing session %u", sessionID());
    reply(sendMessage(0, 2, std::nullopt));
}

void TelvoradSession::uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                       UploadFileReply completionHandler) {
    TELVORA_LOG(kLogDebug, "uploadFileAtPath: Uploading file for session %u", sessionID());
    uploadFileWithURL(fileURL, extensionToken, completionHandler);
}

void TelvoradSession::uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                                        const UploadFileReply& completionHandler) {
    const std::string path = pathOfFileURL(fileURL);
    bool uploaded = false;
    if (const auto current = backends()) {
        for (const auto& [name, backend] : *current) {
            if (backend->uploadFileAtPath(path, extensionToken, *clientFiles_)) uploaded = true;
        }
    }
    clientFiles_->releaseExtension(extensionToken);  // if no backend consumed it
    if (uploaded) {
        TELVORA_LOG(kLogDebug, "uploadFileWithURL: File upload successful for %s", path.c_str());
    } else {
        TELVORA_LOG(kLogError, "uploadFileWithURL: File upload failed for %s", path.c_str());
    }
    TelvoradUtil::writeToLogFile(services_.messageLog,
                                 std::string("[uploadFileWithURL] Upload ") +
                                     (uploaded ? "succeeded" : "failed") + " for file " + textOfURL(fileURL),
                                 uid_);
    completionHandler(uploaded);
}

void TelvoradSession::uploadLogData(Array records, UploadLogDataReply completionHandler) {
    bool uploaded = false;
    if (const auto current = backends()) {
        for (const auto& [name, backend] : *current) {
            if (backend->uploadLogData(records)) uploaded = true;
        }
    }
    if (uploaded) {
        TELVORA_LOG(kLogDebug, "uploadLogData: Log data array upload successful");
    } else {
        TELVORA_LOG(kLogError, "uploadLogData: Log data array upload failed");
    }
    completionHandler(uploaded, std::nullopt);
}

}  // namespace telvora
