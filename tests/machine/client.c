/* SPDX-License-Identifier: Apache-2.0
 *
 * A program on the machine that has only libtelvora's package.
 *
 *     client first         sends one report, prints the milliseconds from connecting to its answer
 *     client load [COUNT]  sends numbered reports across restarts of the daemon, COUNT of them or until
 *                          standard input ends; prints "SENT LOST"
 *     client hold COUNT    opens COUNT sessions, prints "held", keeps them until standard input ends
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <telvora/telvora.h>
#include <time.h>
#include <unistd.h>

enum { kClientType = 8, kPatienceMs = 120000, kReportsInFlight = 200 };

static telvora_session* open_session(int id) {
    telvora_session* session = telvora_session_new(NULL);
    telvora_value* info = telvora_dictionary_new();
    telvora_value* user = telvora_dictionary_new();
    telvora_set_int(info, kTelvoraSessionInfoClientType, kClientType);
    telvora_set_int(info, kTelvoraSessionInfoSessionID, id);
    telvora_set_bool(info, kTelvoraSessionInfoRequireUserInfo, true);
    telvora_set_bool(info, kTelvoraSessionInfoBatchEvent, true);
    telvora_set_string(user, kTelvoraUserInfoClientName, "tester");
    telvora_session_set_info(session, info, user, NULL, 0, NULL, NULL);
    telvora_session_start(session, NULL, NULL);
    telvora_value_free(user);
    telvora_value_free(info);
    return session;
}

static telvora_status send_number(telvora_session* session, const char* key, int number) {
    telvora_value* payload = telvora_dictionary_new();
    telvora_set_int(payload, key, number);
    const telvora_status status = telvora_session_send(session, 5, 6, payload, NULL, NULL);
    telvora_value_free(payload);
    return status;
}

static double milliseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static int first(void) {
    const double start = milliseconds();
    telvora_session* session = open_session(1);
    send_number(session, "number", 0);
    const telvora_status status = telvora_session_wait(session, kPatienceMs);
    printf("%.1f\n", milliseconds() - start);
    telvora_session_free(session);
    return status == TELVORA_OK ? 0 : 1;
}

static bool input_ended(void) {
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, 0) > 0;
}

static int load(int count) {
    telvora_session* session = open_session(2);
    const struct timespec pause = {0, 1000000};        /* the library connects anew once a second */
    const char* key = count > 0 ? "sample" : "number"; /* the books are kept of those without a count */
    int sent = 0;
    while (count > 0 ? sent < count : !input_ended()) {
        const telvora_status status = send_number(session, key, sent + 1);
        if (status == TELVORA_OK && ++sent % kReportsInFlight == 0)
            telvora_session_wait(session, kPatienceMs);
        if (status != TELVORA_OK) nanosleep(&pause, NULL);
    }
    telvora_session_wait(session, kPatienceMs);
    telvora_session_flush(session, NULL, NULL);
    const telvora_status flushed = telvora_session_wait(session, kPatienceMs);
    printf("%d %llu\n", sent, (unsigned long long)telvora_session_lost_calls(session));
    telvora_session_free(session);
    return flushed == TELVORA_OK ? 0 : 1;
}

static int hold(int count) {
    int failures = 0;
    for (int i = 0; i < count; ++i) { /* ends with the process */
        if (telvora_session_wait(open_session(100 + i), kPatienceMs) != TELVORA_OK) ++failures;
    }
    puts(failures == 0 ? "held" : "failed");
    fflush(stdout);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return failures == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    const char* command = argc > 1 ? argv[1] : "";
    const int count = argc > 2 ? atoi(argv[2]) : 0;
    if (strcmp(command, "first") == 0) return first();
    if (strcmp(command, "load") == 0) return load(count);
    if (strcmp(command, "hold") == 0) return hold(count);
    return 2;
}
