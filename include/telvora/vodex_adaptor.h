/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The metrics adaptor: a shared object that telvorad loads (dlopen(3)) and passes every report of certain
 * clients to. It exports one constant:
 *
 *     const telvora_vodex_adaptor_class VodexAdaptor = {
 *         TELVORA_VODEX_ADAPTOR_VERSION, create, send_message, destroy};
 *
 * The daemon reads its absolute path from "vodexAdaptorPath" in the administrator's
 * Preferences/com.zandor.telvora.plist when it starts. examples/vodex-adaptor/ is a complete example.
 *
 * Sandbox. The adaptor runs in the daemon's process and sandbox. It can read its own file and the files that
 * the daemon can read, mainly the system's libraries, certificates and time zones. It can write to the
 * daemon's directories and to standard error, and connect TCP and UDP sockets. It can neither start a process
 * nor open other files. The daemon loads it with the first session that needs it, and does not unload it.
 *
 * Threads. Calls for one instance come one after another, on changing threads with 400 kB of stack. Calls for
 * different instances may run at the same time. A session waits while its adaptor is called, and other
 * sessions of its hierarchy may wait for that session: calls should return at once. The adaptor may start
 * threads.
 *
 * Exceptions. An exception that leaves create, send_message or destroy is caught and logged; the call is
 * lost. One that leaves an initialiser of the shared object or a thread of the adaptor ends the process.
 */
#ifndef TELVORA_VODEX_ADAPTOR_H
#define TELVORA_VODEX_ADAPTOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Version of this interface. Additions at the end of telvora_vodex_host do not change it. */
#define TELVORA_VODEX_ADAPTOR_VERSION 1u

/* A value of a report: its payload, or a value in it. The daemon owns it. It is valid, with all pointers that
 * are read from it, until the send_message call that received it returns; until then, its accessors may be
 * called from any thread. */
typedef struct telvora_vodex_value telvora_vodex_value;

typedef enum telvora_vodex_kind {
    TELVORA_VODEX_NONE = 0, /* only of NULL */
    TELVORA_VODEX_BOOLEAN = 1,
    TELVORA_VODEX_INTEGER = 2,
    TELVORA_VODEX_UNSIGNED = 3, /* a number above INT64_MAX */
    TELVORA_VODEX_REAL = 4,
    TELVORA_VODEX_STRING = 5, /* UTF-8 */
    TELVORA_VODEX_DATA = 6,
    TELVORA_VODEX_DATE = 7, /* seconds since 1970-01-01 UTC */
    TELVORA_VODEX_ARRAY = 8,
    TELVORA_VODEX_DICTIONARY = 9
} telvora_vodex_kind;

/* Functions of the daemon for the adaptor. They exist as long as the process, may be called from any thread,
 * and never fail: for NULL and for a value of another kind they return 0 or NULL. */
typedef struct telvora_vodex_host {
    size_t size; /* of this structure, in bytes; later daemons may have more functions at its end */

    telvora_vodex_kind (*kind)(const telvora_vodex_value* value);

    int (*boolean)(const telvora_vodex_value* value); /* 1 or 0 */
    int64_t (*integer)(const telvora_vodex_value* value);
    uint64_t (*unsigned_integer)(const telvora_vodex_value* value);
    double (*real)(const telvora_vodex_value* value); /* of a REAL or a DATE */

    /* Returns the bytes of a STRING or DATA, followed by a zero byte, and their number without that byte in
     * `*length`. `length` may be NULL. */
    const char* (*bytes)(const telvora_vodex_value* value, size_t* length);

    /* Return the number of elements of an ARRAY or DICTIONARY, and the element at an index, counted from 0;
     * NULL past the end. A dictionary is in the byte order of its keys. */
    size_t (*count)(const telvora_vodex_value* value);
    const telvora_vodex_value* (*element)(const telvora_vodex_value* value, size_t index);

    /* Return the zero-terminated key at an index of a DICTIONARY, and the value under a key; NULL if it does
     * not exist. */
    const char* (*key)(const telvora_vodex_value* value, size_t index);
    const telvora_vodex_value* (*value_for_key)(const telvora_vodex_value* value, const char* key);
} telvora_vodex_host;

/* Functions of the adaptor for the daemon. */
typedef struct telvora_vodex_adaptor_class {
    /* TELVORA_VODEX_ADAPTOR_VERSION. The daemon ignores a class of another version. */
    uint32_t version;

    /* Makes an instance for a session. The daemon passes it to the other functions, and does not use it after
     * destroy. NULL on failure: the session's reports are then dropped. */
    void* (*create)(const telvora_vodex_host* host);

    /* Receives one report: its category (method), its type (resp_code), and its payload, a DICTIONARY, or
     * NULL if it has no payload. */
    void (*send_message)(void* adaptor, uint16_t method, uint16_t resp_code,
                         const telvora_vodex_value* payload);

    /* Destroys an instance after its last call. May be NULL. The daemon need not destroy the instances of
     * sessions that are open when the process ends. */
    void (*destroy)(void* adaptor);
} telvora_vodex_adaptor_class;

/* The adaptor defines this constant. */
extern
#ifdef __GNUC__
    __attribute__((visibility("default")))
#endif
    const telvora_vodex_adaptor_class VodexAdaptor;

#ifdef __cplusplus
}
#endif

#endif
