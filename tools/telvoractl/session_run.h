// SPDX-License-Identifier: Apache-2.0
//
// SessionRun: one session with the daemon. Each operation returns a Status, and prints an error to standard
// error.
#pragma once

#include <memory>
#include <string>

#include "answers.h"
#include "client/client_session.h"
#include "output.h"
#include "session_options.h"

namespace telvora::ctl {

class SessionRun {
  public:
    SessionRun(const SessionOptions& options, const Printer& print)
        : options_(options), print_(print), answers_(options.timeout) {}

    // Connects, configures the session and prints its reporting states. With `aggregate`, prints each message
    // that the session receives for aggregation.
    int open(const CommonOptions& common, bool aggregate = false);

    // Sends one report without waiting for its answer, which is printed when it comes: reports are pipelined.
    int send(const Dictionary& message);
    // Waits for the answers to all reports.
    int wait();

    // Each prints its answer.
    int states();
    int flush();
    int finish();
    // Flushes and finishes.
    int leave();
    // Whether an answer to a report or to a flush had a text: the message that was posted.
    bool wasAnswered() const { return wasAnswered_; }
    // Passes a file to the daemon for its upload.
    int upload(const std::string& path);

  private:
    template <typename T, typename Call>
    int ask(Call call, const std::string& activity, T& answer);

    const SessionOptions& options_;
    const Printer print_;
    bool wasAnswered_ = false;  // set before the answer is counted
    // Destroyed from below: the session, then the runtime's thread, which runs the session's callbacks, then
    // the answers, which the callbacks use.
    Answers answers_;
    ClientRuntime runtime_;
    std::unique_ptr<ClientSession> session_;
};

}  // namespace telvora::ctl
