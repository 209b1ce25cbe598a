// SPDX-License-Identifier: Apache-2.0
//
// telvora-bench-sender SOCKET REPORTS THREADS: sends reports of ten entries on one session of libtelvora,
// without completions, and flushes. Prints the processor seconds within telvora_session_send(), of all
// threads together; the processor seconds of the process and the seconds from the first report to the answer
// of the flush; and how many calls were refused as busy. Started by telvora-bench.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

#include "record.h"
#include "telvora/telvora.h"

namespace {

using telvora::bench::kNumberKey;
using telvora::bench::kPeersRecord;

// Payloads are made ahead of their sending, so that the time of telvora_session_send() alone is taken.
constexpr size_t kBurst = 256;

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

struct EntrySetter {
    telvora_value* record;
    const char* key;
    void operator()(bool value) const { telvora_set_bool(record, key, value); }
    void operator()(int64_t value) const { telvora_set_int(record, key, value); }
    void operator()(double value) const { telvora_set_double(record, key, value); }
    void operator()(const char* value) const { telvora_set_string(record, key, value); }
};

struct Sender {
    telvora_session* session;
    size_t first;  // number of this thread's first report; every `step`-th follows
    size_t step;
    size_t end;
    double seconds = 0;  // within telvora_session_send()
    size_t busy = 0;
    telvora_status failure = TELVORA_OK;

    void run() {
        std::vector<telvora_value*> payloads(kBurst);
        for (telvora_value*& payload : payloads) {
            payload = telvora_dictionary_new();
            for (const auto& [key, value] : kPeersRecord)
                std::visit(EntrySetter{payload, key}, value);
        }
        for (size_t number = first; number < end && failure == TELVORA_OK;) {
            const size_t count = std::min(kBurst, (end - number + step - 1) / step);
            for (size_t i = 0; i < count; ++i)
                telvora_set_int(payloads[i], kNumberKey, static_cast<int64_t>(number + i * step));
            send(payloads, count);
            number += count * step;
        }
        for (telvora_value* payload : payloads)
            telvora_value_free(payload);
    }

    void send(const std::vector<telvora_value*>& payloads, size_t count) {
        for (size_t sent = 0; sent < count;) {
            telvora_status status = TELVORA_OK;
            const double before = secondsOf(CLOCK_THREAD_CPUTIME_ID);
            while (sent < count && status == TELVORA_OK) {
                status = telvora_session_send(session, 1, 1, payloads[sent], nullptr, nullptr);
                if (status == TELVORA_OK) ++sent;
            }
            seconds += secondsOf(CLOCK_THREAD_CPUTIME_ID) - before;
            if (status == TELVORA_ERROR_BUSY) {
                ++busy;
                status = telvora_session_wait(session, -1);
            }
            if (status != TELVORA_OK && status != TELVORA_ERROR_BUSY) {
                failure = status;
                return;
            }
        }
    }
};

telvora_session* openSession(const char* socketPath) {
    telvora_session_options options = {};
    options.size = sizeof options;
    options.socket_path = socketPath;
    telvora_session* session = telvora_session_new(&options);
    telvora_value* info = telvora_dictionary_new();
    telvora_set_int(info, kTelvoraSessionInfoClientType, 8);
    telvora_set_int(info, kTelvoraSessionInfoSessionID, 1);
    telvora_set_bool(info, kTelvoraSessionInfoBatchEvent, true);
    telvora_session_set_info(session, info, nullptr, nullptr, 0, nullptr, nullptr);
    telvora_session_start(session, nullptr, nullptr);
    telvora_value_free(info);
    return session;
}

int failed(telvora_status status) {
    std::fprintf(stderr, "telvora-bench-sender: %s\n", telvora_status_text(status));
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const size_t reports = std::strtoull(argv[2], nullptr, 10);
    const size_t threadCount = std::strtoull(argv[3], nullptr, 10);
    telvora_session* session = openSession(argv[1]);
    if (const auto status = telvora_session_wait(session, -1); status != TELVORA_OK) return failed(status);

    std::vector<Sender> senders;
    for (size_t i = 0; i < threadCount; ++i)
        senders.push_back({session, i, threadCount, reports});
    const double begin = secondsOf(CLOCK_MONOTONIC);
    const double before = secondsOf(CLOCK_PROCESS_CPUTIME_ID);
    std::vector<std::thread> threads;
    for (size_t i = 1; i < senders.size(); ++i)
        threads.emplace_back([&sender = senders[i]] { sender.run(); });
    senders.front().run();
    for (std::thread& thread : threads)
        thread.join();
    telvora_session_wait(session, -1);  // a flush can be refused as busy, too
    telvora_session_flush(session, nullptr, nullptr);
    const telvora_status flushed = telvora_session_wait(session, -1);
    const double processSeconds = secondsOf(CLOCK_PROCESS_CPUTIME_ID) - before;
    const double seconds = secondsOf(CLOCK_MONOTONIC) - begin;
    telvora_session_free(session);

    double callerSeconds = 0;
    size_t busy = 0;
    for (const Sender& sender : senders) {
        if (sender.failure != TELVORA_OK) return failed(sender.failure);
        callerSeconds += sender.seconds;
        busy += sender.busy;
    }
    if (flushed != TELVORA_OK) return failed(flushed);
    std::printf("%.9f %.9f %.9f %zu\n", callerSeconds, processSeconds, seconds, busy);
}
