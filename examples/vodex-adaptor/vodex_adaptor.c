/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A metrics adaptor that counts the reports of its session. For each it writes a line to standard error,
 * which the service manager collects: keys and kinds, but no values, for reports are people's data.
 *
 *     vodex-adaptor: report 2: method 5 respCode 6 { codec: string of 4 bytes, frames: integer }
 *
 * Build:  cc -shared -fPIC -I include -o vodex-adaptor.so examples/vodex-adaptor/vodex_adaptor.c
 * Use:    put the result's path under "vodexAdaptorPath" (telvora/vodex_adaptor.h says where), start the
 *         daemon anew, and open a session of client type 7, 11 or 13 whose bag has an entry "vodex".
 */
#include "telvora/vodex_adaptor.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

struct adaptor {
    const telvora_vodex_host* host;
    unsigned long reports;
};

struct line {
    char text[2048];
    size_t length;
};

/* Appends as much as there is room for. */
__attribute__((format(printf, 2, 3))) static void append(struct line* line, const char* format, ...) {
    const size_t room = sizeof line->text - line->length;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line->text + line->length, room, format, arguments);
    va_end(arguments);
    if (length > 0) line->length += (size_t)length < room ? (size_t)length : room - 1;
}

static void append_kind(struct line* line, const telvora_vodex_host* host, const telvora_vodex_value* value) {
    size_t length = 0;
    switch (host->kind(value)) {
        case TELVORA_VODEX_NONE:
            append(line, "nothing");
            break;
        case TELVORA_VODEX_BOOLEAN:
            append(line, "boolean");
            break;
        case TELVORA_VODEX_INTEGER:
        case TELVORA_VODEX_UNSIGNED:
            append(line, "integer");
            break;
        case TELVORA_VODEX_REAL:
            append(line, "real");
            break;
        case TELVORA_VODEX_STRING:
            host->bytes(value, &length);
            append(line, "string of %zu bytes", length);
            break;
        case TELVORA_VODEX_DATA:
            host->bytes(value, &length);
            append(line, "data of %zu bytes", length);
            break;
        case TELVORA_VODEX_DATE:
            append(line, "date");
            break;
        case TELVORA_VODEX_ARRAY:
            append(line, "array of %zu", host->count(value));
            break;
        case TELVORA_VODEX_DICTIONARY:
            append(line, "dictionary of %zu", host->count(value));
            break;
    }
}

static void* create(const telvora_vodex_host* host) {
    struct adaptor* self = calloc(1, sizeof *self);
    if (self != NULL) self->host = host;
    return self;
}

static void send_message(void* adaptor, uint16_t method, uint16_t resp_code,
                         const telvora_vodex_value* payload) {
    struct adaptor* self = adaptor;
    const telvora_vodex_host* host = self->host;
    struct line line = {.length = 0};
    append(&line, "vodex-adaptor: report %lu: method %u respCode %u {", ++self->reports, method, resp_code);
    const size_t entries = host->count(payload);
    for (size_t i = 0; i < entries; ++i) {
        append(&line, "%s %s: ", i == 0 ? "" : ",", host->key(payload, i));
        append_kind(&line, host, host->element(payload, i));
    }
    append(&line, " }");
    fprintf(stderr, "%s\n", line.text);
}

static void destroy(void* adaptor) {
    struct adaptor* self = adaptor;
    fprintf(stderr, "vodex-adaptor: %lu reports\n", self->reports);
    free(self);
}

const telvora_vodex_adaptor_class VodexAdaptor = {TELVORA_VODEX_ADAPTOR_VERSION, create, send_message,
                                                  destroy};
