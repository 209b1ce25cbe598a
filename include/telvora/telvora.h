/* SPDX-License-Identifier: Apache-2.0
 *
 * libtelvora: sends reports from a program to telvorad. telvora(3) gives an overview, telvora/keys.h has the
 * keys of the dictionaries, telvora/telvora.hpp is the interface for C++20.
 *
 *     telvora_session *session = telvora_session_new(NULL);
 *     telvora_value *info = telvora_dictionary_new(), *user = telvora_dictionary_new();
 *     telvora_value *payload = telvora_dictionary_new();
 *     telvora_set_int(info, kTelvoraSessionInfoClientType, 8);
 *     telvora_set_int(info, kTelvoraSessionInfoSessionID, 1);
 *     telvora_set_bool(info, kTelvoraSessionInfoRequireUserInfo, true);
 *     telvora_set_string(user, kTelvoraUserInfoClientName, "player");
 *     telvora_set_string(payload, "fruit", "quince");
 *     telvora_session_set_info(session, info, user, NULL, 0, NULL, NULL);
 *     telvora_session_start(session, show_backends, NULL);
 *     telvora_session_send(session, 5, 6, payload, NULL, NULL);
 *     telvora_session_flush(session, NULL, NULL);
 *     if (telvora_session_wait(session, 10000) != TELVORA_OK) ...
 *
 * A session without kTelvoraSessionInfoRequireUserInfo reports without the user's consent; see keys.h.
 *
 * The following holds for every function that does not state otherwise.
 *
 * Threads. Functions of sessions and recorders may be called from any thread, callbacks included. A value may
 * be used by one thread at a time; several threads may read a value that no thread changes. The library has
 * one thread, which starts with the first call of the first session. It runs all callbacks, one after
 * another, and never within the call that they belong to. A callback must not block and must not throw. It
 * has 512 KiB of stack. All signals are blocked on that thread.
 *
 * Ownership. A function copies or reads its arguments before it returns; the caller keeps them. The caller
 * owns the result of a function named _new or _copy, and frees it with the _free function of its type. Any
 * other pointer that a function returns is borrowed: it is valid as long as the object that it was read from
 * exists and is not changed. The arguments of a callback are valid during that call of it.
 *
 * Failure. An operation returns TELVORA_OK, and its completion then runs exactly once; or it returns the
 * reason of its failure, and its completion never runs. An argument that is NULL or of another type where the
 * function does not allow that gives TELVORA_ERROR_INVALID. A completion may be NULL. A function that returns
 * a pointer returns NULL if memory is short. A function that returns a status returns TELVORA_ERROR_INVALID
 * if its session, recorder or container is NULL: after several calls, a program may check the last one only.
 *
 * Units. Text is UTF-8 and ends with a zero byte; invalid UTF-8 is replaced by U+FFFD on its way to the
 * daemon. Times are seconds since 1970-01-01 UTC, durations milliseconds, sizes bytes.
 *
 * Connections. The daemon may be absent, and may end at any time: when it is idle, when it is upgraded, or in
 * a crash. No operation waits for it. A session connects with its first call. After the connection is lost,
 * the next call connects again, and restores in the daemon the newest arguments of
 * telvora_session_set_info(), telvora_session_start() and telvora_session_fetch_states(), even of calls that
 * returned TELVORA_ERROR_UNAVAILABLE. User info that was withdrawn stays withdrawn. A call whose answer was
 * lost is not sent again, as the daemon may have executed it. Calls try to connect at most once a second;
 * until then they fail at once, and need no system call but for the clock.
 *
 * A session with a telvora_message_handler also connects again without a call, if it has lost a connection
 * and telvora_session_set_info() was called: the sessions below it report without it meanwhile. It tries at
 * once if the lost connection lasted for a second; after failures it tries again in 1 s, 2 s, 4 s and so on,
 * up to every 10 minutes. All other sessions, and this one while it is connected or has not lost a connection
 * yet, have no timer.
 *
 * Fork. After fork(2), an inherited session belongs to the parent: in the child, each of its calls returns
 * TELVORA_ERROR_FORKED, and telvora_session_free() has no effect. The child may make sessions of its own.
 *
 * Exit. At exit(3) no further callback begins. Calls that were made before have 250 ms to be answered; later
 * calls, from destructors and handlers of atexit(3), return TELVORA_ERROR_EXITING. _exit(2) loses calls that
 * have not been sent.
 *
 * Disabling. If TELVORA_DISABLE=1 is in the environment when a session is made, that session neither connects
 * nor records: its calls succeed with the default answers of a recorder.
 *
 * Stability. Symbols have the version LIBTELVORA_1 and keep their meaning under the soname libtelvora.so.1.
 * Enumerations and telvora_session_options may grow at their ends.
 */
#ifndef TELVORA_TELVORA_H
#define TELVORA_TELVORA_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "telvora/keys.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TELVORA_API __attribute__((visibility("default")))
#define TELVORA_MUST_USE __attribute__((warn_unused_result))

/* --- Statuses --------------------------------------------------------------------------------------------
 *
 * The results of functions, and of calls in answers.
 */
typedef enum telvora_status {
    TELVORA_OK = 0,
    TELVORA_ERROR_INVALID = 1,     /* the arguments can't be sent, or the answer can't be read */
    TELVORA_ERROR_UNAVAILABLE = 2, /* the daemon can't be reached; the call was not sent */
    TELVORA_ERROR_LOST = 3,        /* the connection ended before the answer; the call may have been executed.
                                      If the daemon refuses the program, the answer's message names the usual
                                      causes: see telvorad.entitlements(5) */
    TELVORA_ERROR_BUSY = 4,    /* 16384 calls of the session wait for their answers; this one was not sent */
    TELVORA_ERROR_REFUSED = 5, /* the daemon answered with an error; the answer's message has its text */
    TELVORA_ERROR_FILE = 6,    /* the file can't be opened; errno has the reason */
    TELVORA_ERROR_RESOURCES = 7, /* memory, or another resource of the process, is short */
    TELVORA_ERROR_FORKED = 8,    /* the session belongs to the parent process */
    TELVORA_ERROR_EXITING = 9,   /* the process is in exit(3) */
    TELVORA_ERROR_TIMEOUT = 10,  /* the time has passed */
    TELVORA_ERROR_CLOSED = 11    /* the session was freed before the answer */
} telvora_status;

/* Returns a description of the status, for people. Never NULL. The text is constant. */
TELVORA_API const char* telvora_status_text(telvora_status status);

/* Returns the library's version, for example "1.1.0". The text is constant. */
TELVORA_API const char* telvora_version(void);

/* --- Values ----------------------------------------------------------------------------------------------
 *
 * A value is a property list: a dictionary with text keys, an array, or a value of a plain type within them.
 * Dictionaries are in the byte order of their keys. A call completes with TELVORA_ERROR_INVALID if a value
 * has more than 16 levels of containers, or if the whole call exceeds 16 MiB.
 */
typedef struct telvora_value telvora_value;

typedef enum telvora_type {
    TELVORA_TYPE_BOOL = 1,
    TELVORA_TYPE_INT = 2,
    TELVORA_TYPE_DOUBLE = 3,
    TELVORA_TYPE_STRING = 4,
    TELVORA_TYPE_DATA = 5, /* bytes */
    TELVORA_TYPE_DATE = 6,
    TELVORA_TYPE_ARRAY = 7,
    TELVORA_TYPE_DICTIONARY = 8
} telvora_type;

/* Make an empty container. */
TELVORA_API telvora_value* telvora_dictionary_new(void);
TELVORA_API telvora_value* telvora_array_new(void);
/* Makes a deep copy. NULL if `value` is NULL. */
TELVORA_API telvora_value* telvora_value_copy(const telvora_value* value);
/* Frees a value that a _new or _copy function returned. `value` may be NULL. */
TELVORA_API void telvora_value_free(telvora_value* value);

/* Set the entry `key` of a dictionary, or append to an array if `key` is NULL. An existing entry is replaced.
 * telvora_set_value() makes a deep copy of the value. Pointers that were read from the container become
 * invalid. Return TELVORA_ERROR_INVALID if `container` is not of the type that `key` requires, or if the
 * value is NULL; `bytes` may be NULL if `size` is 0. */
TELVORA_API telvora_status telvora_set_bool(telvora_value* container, const char* key, bool value);
TELVORA_API telvora_status telvora_set_int(telvora_value* container, const char* key, int64_t value);
TELVORA_API telvora_status telvora_set_double(telvora_value* container, const char* key, double value);
TELVORA_API telvora_status telvora_set_string(telvora_value* container, const char* key, const char* value);
TELVORA_API telvora_status telvora_set_data(telvora_value* container, const char* key, const void* bytes,
                                            size_t size);
TELVORA_API telvora_status telvora_set_date(telvora_value* container, const char* key, double seconds);
TELVORA_API telvora_status telvora_set_value(telvora_value* container, const char* key,
                                             const telvora_value* value);

/* Returns the type of `value`, which must not be NULL. */
TELVORA_API telvora_type telvora_value_type(const telvora_value* value);
/* Returns the number of entries of a dictionary, elements of an array, or bytes of a string or data. 0 for
 * other types and NULL. */
TELVORA_API size_t telvora_value_count(const telvora_value* value);
/* Returns the element of an array, or the value of a dictionary's entry, at `index`, counted from 0. NULL
 * past the end, and for other types. */
TELVORA_API const telvora_value* telvora_value_at(const telvora_value* value, size_t index);
/* Returns the key of a dictionary's entry at `index`. NULL past the end, and for other types. */
TELVORA_API const char* telvora_value_key_at(const telvora_value* value, size_t index);
/* Returns the value under `key` in a dictionary. NULL without such an entry, and for other types. */
TELVORA_API const telvora_value* telvora_value_find(const telvora_value* value, const char* key);
/* Returns a boolean, or whether a number is not 0. False for other types and NULL. */
TELVORA_API bool telvora_value_bool(const telvora_value* value);
/* Returns a number or boolean as an integer, truncated toward zero and clamped to the range of int64_t. 0 for
 * other types and NULL. */
TELVORA_API int64_t telvora_value_int(const telvora_value* value);
/* Returns a number or boolean as a double, or the seconds of a date. 0 for other types and NULL. */
TELVORA_API double telvora_value_double(const telvora_value* value);
/* Returns the text of a string. NULL for other types and NULL. */
TELVORA_API const char* telvora_value_string(const telvora_value* value);
/* Returns the bytes of data, and their number in `*size` unless `size` is NULL. NULL, with the number 0, for
 * other types and NULL. */
TELVORA_API const void* telvora_value_data(const telvora_value* value, size_t* size);

/* --- Answers ---------------------------------------------------------------------------------------------
 *
 * The result of an operation. A completion receives it, and may read it until it returns.
 */
typedef struct telvora_answer telvora_answer;

/* Called on the library's thread. `context` is the pointer that was passed to the operation. */
typedef void (*telvora_completion)(void* context, const telvora_answer* answer);

/* Returns TELVORA_OK if the call was answered, else the reason why it was not. */
TELVORA_API telvora_status telvora_answer_status(const telvora_answer* answer);
/* Returns a description of the failure, for people. "" if the status is TELVORA_OK. */
TELVORA_API const char* telvora_answer_message(const telvora_answer* answer);
/* Returns the daemon's answer, which each operation describes. NULL if there is no value. */
TELVORA_API const telvora_value* telvora_answer_value(const telvora_answer* answer);
/* Returns whether the answer of a flush or of an upload of log data has a backend's error, and reads it: its
 * domain, its code (-1 for a condition in the daemon, else the HTTP status of the server) and its
 * description. Each pointer may be NULL. Without an error, the objects that they point to keep their values.
 */
TELVORA_API bool telvora_answer_error(const telvora_answer* answer, const char** domain, int32_t* code,
                                      const char** description);

/* --- Sessions --------------------------------------------------------------------------------------------
 *
 * A session is one connection to the daemon. The daemon executes its calls in the order in which they were
 * made, and answers them in that order, except for flushes. A program need not wait for an answer before its
 * next call.
 */
typedef struct telvora_session telvora_session;
typedef struct telvora_recorder telvora_recorder;

/* Receives a copy of each report of this session and of the sessions below it in its hierarchy, on the
 * library's thread. `session_info` is that of the session that sent the report. `timestamp` is the time of
 * the report, in seconds. `payload` is merged with that session's user info, and may be NULL. A call with
 * NULL, 0, 0, 0 and NULL marks the end: no more reports follow.
 */
typedef void (*telvora_message_handler)(void* context, const telvora_value* session_info, double timestamp,
                                        uint16_t category, uint16_t type, const telvora_value* payload);

typedef enum telvora_connection_event {
    TELVORA_CONNECTION_LOST = 1,    /* the connection has ended */
    TELVORA_CONNECTION_RESTORED = 2 /* a new connection exists, and the session is restored in the daemon */
} telvora_connection_event;

/* Receives the changes of the connection, on the library's thread. `lost_calls` is the number of calls of the
 * session, since it was made, whose answers were lost with a connection. `reason` describes the loss for
 * people; "" if the connection is restored. */
typedef void (*telvora_connection_handler)(void* context, telvora_connection_event event, uint64_t lost_calls,
                                           const char* reason);

typedef struct telvora_session_options {
    size_t size; /* sizeof(telvora_session_options) */
    /* Path of the daemon's socket. NULL: $TELVORA_SOCKET, else /run/telvora/com.zandor.telvorad. The variable
     * is ignored in a program that secure_getenv(3) protects, for example a set-user-ID program. */
    const char* socket_path;
    /* Replaces the daemon; NULL: the session uses the daemon. */
    telvora_recorder* recorder;
    /* The aggregation block, which receives copies of reports. NULL: the session does not aggregate. */
    telvora_message_handler on_message;
    void* message_context;
    telvora_connection_handler on_connection; /* may be NULL */
    void* connection_context;
} telvora_session_options;

/* Makes a session with these options, or the default ones if `options` is NULL. Does not connect. NULL if
 * memory is short. */
TELVORA_API TELVORA_MUST_USE telvora_session* telvora_session_new(const telvora_session_options* options);

/* Ends and frees the session. Calls without an answer complete with TELVORA_ERROR_CLOSED; their reports may
 * be lost, unless telvora_session_wait() was called before. When the function returns, all callbacks of the
 * session have returned, and no other one begins. As it waits for them, the caller must not hold a lock that
 * a callback takes. Called from a callback, it does not wait: the remaining completions run soon after.
 * `session` may be NULL. */
TELVORA_API void telvora_session_free(telvora_session* session);

/* Waits until all calls of the session, from all threads, have been answered and their completions have
 * returned, but at most `milliseconds`; without limit if that is negative. Returns the first failure of a
 * call since the last wait, including calls that were not accepted; TELVORA_OK if no call failed;
 * TELVORA_ERROR_TIMEOUT; or, in a callback, TELVORA_ERROR_INVALID at once. */
TELVORA_API telvora_status telvora_session_wait(telvora_session* session, int64_t milliseconds);

/* Returns the number of calls whose answers were lost; see telvora_connection_handler. 0 for NULL and in a
 * forked child. */
TELVORA_API uint64_t telvora_session_lost_calls(const telvora_session* session);

/* Returns a copy of `session_info` for a session one level below in the same hierarchy, with this session ID.
 * The caller frees it. NULL if the session info has no hierarchy token. */
TELVORA_API telvora_value* telvora_child_info(const telvora_value* session_info, uint32_t session_id);

/* Sets the identity of the session. `session_info` is a dictionary with the keys kTelvoraSessionInfo...;
 * `user_info` is a dictionary with the keys kTelvoraUserInfo..., or NULL; `frameworks` are the names of
 * `count` frameworks that the daemon is to check. The answer has no value. */
TELVORA_API telvora_status telvora_session_set_info(telvora_session* session,
                                                    const telvora_value* session_info,
                                                    const telvora_value* user_info,
                                                    const char* const* frameworks, size_t count,
                                                    telvora_completion completion, void* context);

/* Configures the session in the daemon. The answer is an array of strings: the names of the backends that
 * report or are sampled out. It has no value if there is no configuration for the session's client type, and
 * is empty if no backend takes reports, for example without the user's consent. Sends still succeed then. A
 * session that is configured already is flushed before, as the daemon then makes its backends anew. */
TELVORA_API telvora_status telvora_session_start(telvora_session* session, telvora_completion completion,
                                                 void* context);

/* Sets new user info, a dictionary. NULL withdraws the user info, except that a session with
 * kTelvoraSessionInfoRequireUserInfo keeps it. The answer is that of telvora_session_start(). */
TELVORA_API telvora_status telvora_session_fetch_states(telvora_session* session,
                                                        const telvora_value* user_info,
                                                        telvora_completion completion, void* context);

/* The answer is a string: a URL at which people see the reports, or "URL not available". */
TELVORA_API telvora_status telvora_session_fetch_display_url(telvora_session* session,
                                                             telvora_completion completion, void* context);

/* Sends a report. `payload` is a dictionary or NULL. The answer is a string of a backend, for people, or has
 * no value. */
TELVORA_API telvora_status telvora_session_send(telvora_session* session, uint16_t category, uint16_t type,
                                                const telvora_value* payload, telvora_completion completion,
                                                void* context);

/* Sends a report in the form of a dictionary with the keys kTelvoraMessageParameters... One of these is a
 * flag: bit 0 sends the report at once, bit 1 makes a backend that is sampled out report. The answer is that
 * of telvora_session_send(). */
TELVORA_API telvora_status telvora_session_send_dictionary(telvora_session* session,
                                                           const telvora_value* message,
                                                           telvora_completion completion, void* context);

/* Makes the backends send the reports that they hold. The answer is a string of a backend, or has no value.
 * It has an error if a backend failed or held no reports, or, with the description "The session's bag names
 * no backends", if the configuration has no backends. A session with a hierarchy level above 0 gets no
 * answer in that last case. */
TELVORA_API telvora_status telvora_session_flush(telvora_session* session, telvora_completion completion,
                                                 void* context);

/* Sends the finish message. Does not flush, and does not end the session. The answer is a string of a
 * backend, or has no value. */
TELVORA_API telvora_status telvora_session_finish(telvora_session* session, telvora_completion completion,
                                                  void* context);

/* Uploads a file. Opens it (open(2) with O_RDONLY, O_CLOEXEC, O_NONBLOCK and O_NOFOLLOW), passes the
 * descriptor to the daemon, and requests the upload by file URL (RFC 8089). A relative path starts at the
 * working directory. Blocks only on the file system. Returns TELVORA_ERROR_FILE with errno if the file can't
 * be opened; errno is ELOOP for a symbolic link. The answer is a boolean: whether a backend uploaded the
 * file. It is false, too, if 32 uploads of the same user are under way. Completes with TELVORA_ERROR_REFUSED,
 * and the reason, if the daemon does not accept the file. The daemon may remove a file that was uploaded. */
TELVORA_API telvora_status telvora_session_upload_file(telvora_session* session, const char* path,
                                                       telvora_completion completion, void* context);

/* Uploads log records. `records` is an array. The answer is a boolean: whether a backend uploaded them; it
 * may have an error. */
TELVORA_API telvora_status telvora_session_upload_log_data(telvora_session* session,
                                                           const telvora_value* records,
                                                           telvora_completion completion, void* context);

/* Sends one report without a configuration of the session. The arguments are those of
 * telvora_session_set_info() and telvora_session_send(). The daemon replaces the session's identity by
 * `session_info`: a session that sends several reports should not be used for this. The answer is the string
 * "finished" or "storebag not available". Returns TELVORA_ERROR_INVALID if the session info lacks
 * kTelvoraSessionInfoSessionID or kTelvoraSessionInfoClientType, as the daemon would not answer. */
TELVORA_API telvora_status telvora_session_send_single(telvora_session* session,
                                                       const telvora_value* session_info,
                                                       const telvora_value* user_info, uint16_t category,
                                                       uint16_t type, const telvora_value* payload,
                                                       telvora_completion completion, void* context);

/* --- Recorders -------------------------------------------------------------------------------------------
 *
 * A recorder replaces the daemon in the tests of a program. A session with a recorder in its options does not
 * connect: the recorder stores each call before the call returns, and answers it. A stored call is a
 * dictionary with "operation" and the arguments of the call:
 *
 *     setSessionInfo     sessionInfo, userInfo, frameworksToCheck, hasAggregationBlock
 *     startConfig, fetchDisplayURL, flushMessages, finishSession
 *     fetchStates        userInfo
 *     sendMessage        category, type, payload, or message alone
 *     uploadFile         path (the file is not opened)
 *     uploadLogData      records
 *     sendSingleMessage  sessionInfo, userInfo, category, type, payload
 *
 * The default answers are an empty array for startConfig and fetchStates, "URL not available", true for
 * uploads, "finished" for sendSingleMessage, and no value for all other operations.
 */
TELVORA_API TELVORA_MUST_USE telvora_recorder* telvora_recorder_new(void);
/* Frees the recorder. Its sessions remain usable. `recorder` may be NULL. */
TELVORA_API void telvora_recorder_free(telvora_recorder* recorder);

/* Sets the answer to later calls of an operation. If `operation` is NULL, sets the answer to all operations
 * and removes all other answers. `value` may be NULL. TELVORA_ERROR_LOST and TELVORA_ERROR_REFUSED become the
 * status of the answer; any other failure is returned by the call itself. The call is stored in each case. */
TELVORA_API telvora_status telvora_recorder_answer(telvora_recorder* recorder, const char* operation,
                                                   telvora_status status, const telvora_value* value);

/* Delivers a message to the telvora_message_handlers of the recorder's sessions. The arguments are those of
 * the handler. telvora_session_wait() also waits for the handlers. */
TELVORA_API telvora_status telvora_recorder_deliver(telvora_recorder* recorder,
                                                    const telvora_value* session_info, double timestamp,
                                                    uint16_t category, uint16_t type,
                                                    const telvora_value* payload);

/* Returns the number of stored calls. 0 for NULL. */
TELVORA_API size_t telvora_recorder_count(const telvora_recorder* recorder);
/* Returns a copy of the call at `index`, counted from 0. The caller frees it. NULL past the end. */
TELVORA_API telvora_value* telvora_recorder_call_copy(const telvora_recorder* recorder, size_t index);
/* Removes all stored calls. */
TELVORA_API void telvora_recorder_clear(telvora_recorder* recorder);

#ifdef __cplusplus
}
#endif

#endif
