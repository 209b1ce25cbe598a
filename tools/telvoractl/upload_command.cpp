// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>

#include "session_run.h"

namespace telvora::ctl {

namespace {

struct UploadOptions {
    SessionOptions session;
    std::vector<std::string> files;
};

// Continues with the other files after one that no backend uploads.
int runUpload(const UploadOptions& options, const CommonOptions& common) {
    SessionRun session(options.session, Printer(common.json));
    int result = session.open(common);
    if (result != kDone) return result;
    for (const std::string& file : options.files) {
        const int status = session.upload(file);
        if (status == kDaemonMissing || status == kNoAnswer) return status;
        result = std::max(result, status);
    }
    return result;
}

}  // namespace

Command addUploadCommand(CLI::App& app, const CommonOptions& common) {
    const auto options = std::make_shared<UploadOptions>();
    CLI::App* command = app.add_subcommand("upload", "Open a session and upload files");
    addSessionOptions(*command, options->session);
    command->add_option("path", options->files, "Files to upload; the caller must be able to open them")
        ->required();
    return {command, [options, &common] { return runUpload(*options, common); }};
}

}  // namespace telvora::ctl
