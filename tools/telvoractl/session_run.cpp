// SPDX-License-Identifier: Apache-2.0
#include "session_run.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "util/file_url.h"
#include "util/unique_fd.h"

namespace telvora::ctl {

namespace {

// Opens a regular file. `std::nullopt` on failure, with the reason in errno.
UniqueFd openFile(const std::string& path, off_t& size) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) return {};
    size = status.st_size;
    if (S_ISREG(status.st_mode)) return file;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return {};
}

}  // namespace

// Makes one call and waits for its answer, which may arrive after the wait has timed out.
template <typename T, typename Call>
int SessionRun::ask(Call call, const std::string& activity, T& answer) {
    if (!answers_.expectOne()) return answers_.report();
    const auto given = std::make_shared<T>();
    call(answers_.completion<T>([given](const T& value) { *given = value; }));
    if (!answers_.wait(activity)) return answers_.report();
    answer = std::move(*given);
    return kDone;
}

int SessionRun::open(const CommonOptions& common, bool aggregate) {
    ClientSession::Handlers handlers;
    if (aggregate) {
        handlers.aggregationBlock = [this](const AggregatedMessage& message) {
            print_("aggregated", message);
        };
    }
    auto session = connect(runtime_, common, handlers);
    if (!session) return fail(kDaemonMissing, session.error());
    session_ = std::move(*session);

    answers_.expectOne();
    session_->setSessionInfo(options_.sessionInfo(), options_.userInfo(), options_.frameworks,
                             answers_.completion<void>([] {}));
    ReportingStates states;
    const int asked =
        ask<ReportingStates>([this](auto completion) { session_->startConfig(std::move(completion)); },
                             "waiting for the configuration", states);
    if (asked != kDone) return asked;
    print_("reportingStates", states);
    return states ? kDone
                  : fail(kNotDone, "the daemon has no configuration for this client type" +
                                       whyWithoutBag(options_.clientType));
}

int SessionRun::send(const Dictionary& message) {
    if (!answers_.expectOne()) return answers_.report();
    session_->sendMessage(message,
                          answers_.completion<std::optional<std::string>>([this](const auto& answer) {
                              wasAnswered_ = wasAnswered_ || answer.has_value();
                              print_("answer", answer);
                          }));
    return kDone;
}

int SessionRun::wait() {
    return answers_.wait("waiting for the answers") ? kDone : answers_.report();
}

int SessionRun::states() {
    ReportingStates states;
    const int asked = ask<ReportingStates>(
        [this](auto completion) { session_->fetchStates(options_.userInfo(), std::move(completion)); },
        "waiting for the states", states);
    if (asked == kDone) print_("reportingStates", states);
    return asked;
}

int SessionRun::flush() {
    FlushAnswer answer;
    const int asked = ask<FlushAnswer>(
        [this](auto completion) { session_->flushMessages(std::move(completion)); }, "flushing", answer);
    if (asked != kDone) return asked;
    print_("flush", answer);
    wasAnswered_ = wasAnswered_ || answer.answer.has_value();
    if (!answer.error || answer.error->description == kNothingToFlush) return kDone;
    return fail(kNotDone, "flush: " + answer.error->description);
}

int SessionRun::finish() {
    std::optional<std::string> answer;
    const int asked = ask<std::optional<std::string>>(
        [this](auto completion) { session_->finishSession(std::move(completion)); }, "finishing", answer);
    if (asked == kDone) print_("finish", answer);
    return asked;
}

int SessionRun::leave() {
    const int flushed = flush();
    if (flushed != kDone && flushed != kNotDone) return flushed;
    const int finished = finish();
    return flushed != kDone ? flushed : finished;
}

int SessionRun::upload(const std::string& path) {
    off_t size = 0;
    UniqueFd file = openFile(path, size);
    std::error_code error;
    const std::string whole = file ? std::filesystem::canonical(path, error).string() : std::string();
    if (!file) error.assign(errno, std::generic_category());
    if (error == std::errc::too_many_symbolic_link_levels)
        return fail(kBadInput, path + ": is a symbolic link, which is not followed");
    if (error) return fail(kBadInput, path + ": " + error.message());

    std::string token;
    int asked = ask<std::string>(
        [&](auto completion) { session_->issueFileExtension(whole, std::move(file), std::move(completion)); },
        "uploading", token);
    if (asked != kDone) return asked;
    bool uploaded = false;
    asked = ask<bool>(
        [&](auto completion) { session_->uploadFile(fileURLOfPath(whole), token, std::move(completion)); },
        "uploading " + path + " (" + std::to_string(size) + " bytes)", uploaded);
    if (asked != kDone) return asked;
    print_("upload", std::optional<std::string>(uploaded ? "uploaded" : "not uploaded"));
    return uploaded ? kDone : fail(kNotDone, path + ": no backend uploaded it");
}

}  // namespace telvora::ctl
