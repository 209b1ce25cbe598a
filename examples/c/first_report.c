/* SPDX-License-Identifier: Apache-2.0
 *
 * The first report, in C:
 *
 *     cc first_report.c $(pkg-config --cflags --libs telvora) -o first_report
 */
#include <stdio.h>
#include <telvora/telvora.h>

/* Shows the names of the backends that report, and sets *context if there is one. Runs on the library's
 * thread. */
static void on_start(void* context, const telvora_answer* answer) {
    const telvora_value* backends = telvora_answer_value(answer);
    if (telvora_answer_status(answer) != TELVORA_OK)
        fprintf(stderr, "Not configured: %s\n", telvora_answer_message(answer));
    else if (backends == NULL)
        fprintf(stderr, "The daemon has no configuration for client type 8.\n");
    else if (telvora_value_count(backends) == 0)
        fprintf(stderr, "No backend reports: 'telvoractl doctor --client-type 8' shows the reason.\n");
    *(bool*)context = telvora_value_count(backends) != 0;
    for (size_t i = 0; i < telvora_value_count(backends); ++i)
        printf("Reports through %s.\n", telvora_value_string(telvora_value_at(backends, i)));
}

int main(void) {
    telvora_session* session = telvora_session_new(NULL);
    telvora_value* info = telvora_dictionary_new();
    telvora_set_int(info, kTelvoraSessionInfoClientType, 8); /* selects the configuration */
    telvora_set_int(info, kTelvoraSessionInfoSessionID, 1);
    telvora_set_bool(info, kTelvoraSessionInfoRequireUserInfo, true); /* else consent is not asked */
    telvora_value* user = telvora_dictionary_new();
    telvora_set_string(user, kTelvoraUserInfoClientName, "first-report");
    telvora_value* payload = telvora_dictionary_new();
    telvora_set_string(payload, "fruit", "quince");

    telvora_session_set_info(session, info, user, NULL, 0, NULL, NULL);
    bool reports = false; /* read after telvora_session_wait() */
    telvora_session_start(session, on_start, &reports);
    telvora_session_send(session, 5, 6, payload, NULL, NULL);
    telvora_session_flush(session, NULL, NULL);
    telvora_status status = telvora_session_wait(session, 30000);
    printf("The report: %s\n", status != TELVORA_OK || reports ? telvora_status_text(status) : "not taken");

    telvora_value_free(payload);
    telvora_value_free(user);
    telvora_value_free(info);
    telvora_session_free(session); /* before `reports` ends: a completion may still write to it */
    return status == TELVORA_OK && reports ? 0 : 1;
}
