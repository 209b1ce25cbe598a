/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The metrics adaptor: a shared object that telvorad loads (dlopen(3)) and hands every report of certain
 * clients to. It exports one constant,
 *
 *     const telvora_vodex_adaptor_class VodexAdaptor = {
 *         TELVORA_VODEX_ADAPTOR_VERSION, create, send_message, destroy};
 *
 * and is named by "vodexAdaptorPath" in the administrator's Preferences/com.zandor.telvora.plist: an absolute
 * path, read when the daemon starts. examples/vodex-adaptor/ is a whole one.
 *
 * Where it runs: inside the daemon and its sandbox. It can read its own file and what the daemon can (the
 * system's libraries, certificates and time zones, mainly), write to the daemon's own directories and to
 * standard error, and connect TCP and UDP sockets; it can't start a process, and can't open other files. It
 * is loaded with the first session that needs it, and stays loaded until the process ends.
 *
 * Threads: the calls for one instance come one after another, from changing threads with 400 kB of stack;
 * calls for several instances may come at the same time. A session waits while its adaptor is called, and
 * where it belongs to a hierarchy others may wait for it: calls should return at once. The adaptor may have
 * threads of its own.
 *
 * Exceptions: one that leaves create, send_message or destroy is caught and logged, and that call is lost.
 * One that leaves an initialiser of the shared object or a thread of its own ends the process.
 */
#ifndef TELVORA_VODEX_ADAPTOR_H
#define TELVORA_VODEX_ADAPTOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Grows with every change but an addition at the end of telvora_vodex_host. */
#define TELVORA_VODEX_ADAPTOR_VERSION 1u

/* A value of a report: its payload, or something in it. The daemon's; it lives, with all that is read from
 * it, until the send_message that it was passed to returns. Its accessors may be called from any thread until
 * then. */
typedef struct telvora_vodex_value telvora_vodex_value;

typedef enum telvora_vodex_kind {
    TELVORA_VODEX_NONE = 0, /* of NULL only */
    TELVORA_VODEX_BOOLEAN = 1,
    TELVORA_VODEX_INTEGER = 2,
    TELVORA_VODEX_UNSIGNED = 3, /* a number that is too large for INTEGER */
    TELVORA_VODEX_REAL = 4,
    TELVORA_VODEX_STRING = 5, /* UTF-8 */
    TELVORA_VODEX_DATA = 6,
    TELVORA_VODEX_DATE = 7, /* seconds since 1970-01-01 UTC */
    TELVORA_VODEX_ARRAY = 8,
    TELVORA_VODEX_DICTIONARY = 9
} telvora_vodex_kind;

/* What the daemon does for the adaptor. Lives as long as the process; its functions may be called from any
 * thread, take NULL for a value, and never fail: for a value of another kind they return 0 or NULL. */
typedef struct telvora_vodex_host {
    size_t size; /* of this structure, in bytes; a later daemon may have more functions at its end */

    telvora_vodex_kind (*kind)(const telvora_vodex_value* value);

    int (*boolean)(const telvora_vodex_value* value); /* 1 or 0 */
    int64_t (*integer)(const telvora_vodex_value* value);
    uint64_t (*unsigned_integer)(const telvora_vodex_value* value);
    double (*real)(const telvora_vodex_value* value); /* of a REAL or a DATE */

    /* The bytes of a STRING or DATA, with a zero byte after the last, and how many they are without it.
     * `length` may be NULL. */
    const char* (*bytes)(const telvora_vodex_value* value, size_t* length);

    /* How many elements an ARRAY or DICTIONARY has, and the element at an index, counted from 0; NULL from
     * there on. A dictionary is in the byte order of its keys. */
    size_t (*count)(const telvora_vodex_value* value);
    const telvora_vodex_value* (*element)(const telvora_vodex_value* value, size_t index);

    /* The zero-terminated key at an index of a DICTIONARY, and the value under a key; NULL where there is
     * none. */
    const char* (*key)(const telvora_vodex_value* value, size_t index);
    const telvora_vodex_value* (*value_for_key)(const telvora_vodex_value* value, const char* key);
} telvora_vodex_host;

/* What the adaptor does for the daemon. */
typedef struct telvora_vodex_adaptor_class {
    /* TELVORA_VODEX_ADAPTOR_VERSION. The daemon makes no use of a class of another version. */
    uint32_t version;

    /* Makes an instance, one for each session that has this backend. The adaptor's, until destroy. NULL when
     * there can be none: the session's reports are then dropped. */
    void* (*create)(const telvora_vodex_host* host);

    /* Takes one report: its category (method), its type (resp_code), and its payload, a DICTIONARY, or NULL
     * for a report without one. */
    void (*send_message)(void* adaptor, uint16_t method, uint16_t resp_code,
                         const telvora_vodex_value* payload);

    /* Ends an instance, for which no call comes any more. May be NULL. Instances of sessions that are still
     * open when the process ends may not be destroyed. */
    void (*destroy)(void* adaptor);
} telvora_vodex_adaptor_class;

/* Defined by the adaptor, not by the daemon. */
extern
#ifdef __GNUC__
    __attribute__((visibility("default")))
#endif
    const telvora_vodex_adaptor_class VodexAdaptor;

#ifdef __cplusplus
}
#endif

#endif
