/* SPDX-License-Identifier: Apache-2.0
 *
 * The first report, in C:
 *
 *     cc first_report.c $(pkg-config --cflags --libs telvora) -o first_report
 */
#include <stdio.h>
#include <telvora/telvora.h>

int main(void) {
    telvora_session* session = telvora_session_new(NULL);
    telvora_value* info = telvora_dictionary_new();
    telvora_set_int(info, kTelvoraSessionInfoClientType, 8); /* selects the configuration */
    telvora_set_int(info, kTelvoraSessionInfoSessionID, 1);
    telvora_value* payload = telvora_dictionary_new();
    telvora_set_string(payload, "fruit", "quince");

    telvora_session_set_info(session, info, NULL, NULL, 0, NULL, NULL);
    telvora_session_start(session, NULL, NULL);
    telvora_session_send(session, 5, 6, payload, NULL, NULL);
    telvora_session_flush(session, NULL, NULL);
    telvora_status status = telvora_session_wait(session, 30000);
    printf("The report: %s\n", telvora_status_text(status));

    telvora_value_free(payload);
    telvora_value_free(info);
    telvora_session_free(session);
    return status == TELVORA_OK ? 0 : 1;
}
