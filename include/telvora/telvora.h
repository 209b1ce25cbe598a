/* SPDX-License-Identifier: Apache-2.0
 *
 * libtelvora: reports from a program to telvorad. telvora(3) has an overview, telvora/keys.h the keys of the
 * dictionaries, telvora/telvora.hpp the same for C++20.
 *
 *     telvora_session *session = telvora_session_new(NULL);
 *     telvora_value *info = telvora_dictionary_new(), *payload = telvora_dictionary_new();
 *     telvora_set_int(info, kTelvoraSessionInfoClientType, 8);
 *     telvora_set_int(info, kTelvoraSessionInfoSessionID, 1);
 *     telvora_set_string(payload, "fruit", "quince");
 *     telvora_session_set_info(session, info, NULL, NULL, 0, NULL, NULL);
 *     telvora_session_start(session, NULL, NULL);
 *     telvora_session_send(session, 5, 6, payload, NULL, NULL);
 *     telvora_session_flush(session, NULL, NULL);
 *     if (telvora_session_wait(session, 10000) != TELVORA_OK) ...
 *
 * Conventions, which hold where a function does not say otherwise:
 *
 * Threads. Functions of sessions and recorders may be called from any thread, callbacks included. A value
 * belongs to one thread at a time; values that nobody changes may be read by several. The library has one
 * thread, which starts with the first call of the first session; all callbacks run on it, one after another,
 * never within the call that they belong to. A callback must not block, must not throw, and has 512 KiB of
 * stack. All signals are blocked on that thread.
 *
 * Ownership. What a function is given is copied, or read, before it returns: the caller keeps it. What a
 * function named _new or _copy returns is the caller's, who frees it with the _free of its type. What else it
 * returns, and what a callback is given, is borrowed: it lives as long as the thing that it was asked of and
 * is not changed, or as the callback's call.
 *
 * Failure. An operation returns TELVORA_OK, and then its completion runs exactly once; or it returns why it
 * can't be done, and then its completion never runs. Functions that return a pointer return NULL when memory
 * is short. NULL in the place of a session, a recorder or a value that is to be changed is refused with
 * TELVORA_ERROR_INVALID, so that a program may look at the last step only. A completion may be NULL.
 *
 * Text is UTF-8 and ends with a zero byte; on its way to the daemon U+FFFD replaces what is no UTF-8. Times
 * are seconds since 1970-01-01 UTC, durations milliseconds, sizes bytes.
 *
 * The daemon may be absent, or go away: when it ends for want of work, crashes, is upgraded. No operation
 * waits for it. A session connects with its first call, and connects anew with the next call after its
 * connection was lost; it then restores in the daemon what telvora_session_set_info(),
 * telvora_session_start() and telvora_session_fetch_states() last told, even where they returned
 * TELVORA_ERROR_UNAVAILABLE. User info that was withdrawn stays withdrawn. A call that was lost is not sent
 * again: nobody knows whether it was carried out. While the daemon can't be reached, calls fail at once and
 * without a system call but the clock's; calls try a connection at most once a second.
 *
 * A session with a telvora_message_handler also connects anew without a call, once it has lost a connection
 * and telvora_session_set_info() has told what it is: the sessions below it report without it meanwhile. It
 * tries at once after a connection that lasted a second, and while that fails again after 1 s, 2 s, 4 s and
 * so on, at last every 10 minutes. Other sessions, and this one before a loss and while it is connected, have
 * no timer.
 *
 * After fork(2), an inherited session is the parent's: in the child each of its calls returns
 * TELVORA_ERROR_FORKED, and telvora_session_free() does nothing. The child may open sessions of its own.
 *
 * At exit(3) no callback begins any more. Calls that were made get 250 ms to be answered; later ones, from
 * destructors and handlers of atexit(3), return TELVORA_ERROR_EXITING. _exit(2) loses what has not been sent.
 *
 * With TELVORA_DISABLE=1 in the environment, a session that is made does nothing: its calls succeed, with the
 * answers that a recorder gives, and nothing is connected or recorded.
 *
 * The interface is stable: symbols carry the version LIBTELVORA_1 and keep their meaning under the soname
 * libtelvora.so.1. Enumerations and telvora_session_options may grow at their ends.
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

typedef enum telvora_status {
    TELVORA_OK = 0,
    TELVORA_ERROR_INVALID = 1,     /* the arguments can't be sent, or the answer can't be read */
    TELVORA_ERROR_UNAVAILABLE = 2, /* the daemon can't be reached; nothing was sent */
    TELVORA_ERROR_LOST = 3,        /* the connection ended before the answer; the call may have been done.
                                      The answer's message names the usual causes where the daemon turned the
                                      program away: see telvorad.entitlements(5) */
    TELVORA_ERROR_BUSY = 4,        /* 16384 calls of the session wait for their answer; nothing was sent */
    TELVORA_ERROR_REFUSED = 5,     /* the daemon answered with an error; the answer's message has its text */
    TELVORA_ERROR_FILE = 6,        /* the file can't be opened; errno says why */
    TELVORA_ERROR_RESOURCES = 7,   /* memory, or another resource of the process, is short */
    TELVORA_ERROR_FORKED = 8,      /* the session is the parent process's */
    TELVORA_ERROR_EXITING = 9,     /* the process is in exit(3) */
    TELVORA_ERROR_TIMEOUT = 10,    /* the time has passed */
    TELVORA_ERROR_CLOSED = 11      /* the session was freed before the answer */
} telvora_status;

/* The status in words, for people. Never NULL, lives for ever. */
TELVORA_API const char* telvora_status_text(telvora_status status);

/* The library's version, "1.1.0". Lives for ever. */
TELVORA_API const char* telvora_version(void);

/* --- Values ----------------------------------------------------------------------------------------------
 *
 * A value is a property list: a dictionary with text keys, an array, or one of the plain types in them.
 * Dictionaries are kept in the byte order of their keys. More than 16 containers inside one another, and
 * more than 16 MB in one call, can't be sent: the answer is TELVORA_ERROR_INVALID.
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

TELVORA_API telvora_value* telvora_dictionary_new(void);
TELVORA_API telvora_value* telvora_array_new(void);
/* A deep copy. NULL of NULL. */
TELVORA_API telvora_value* telvora_value_copy(const telvora_value* value);
/* Only for what _new or _copy returned. NULL is allowed. */
TELVORA_API void telvora_value_free(telvora_value* value);

/* Sets the entry `key` of a dictionary, replacing what was there; with NULL for `key`, appends to an array.
 * Pointers into the container become void. TELVORA_ERROR_INVALID when `container` is not of the kind that
 * `key` asks for, or when the value is NULL. `bytes` may be NULL when `size` is 0. A value that is set is
 * copied with all that is in it. */
TELVORA_API telvora_status telvora_set_bool(telvora_value* container, const char* key, bool value);
TELVORA_API telvora_status telvora_set_int(telvora_value* container, const char* key, int64_t value);
TELVORA_API telvora_status telvora_set_double(telvora_value* container, const char* key, double value);
TELVORA_API telvora_status telvora_set_string(telvora_value* container, const char* key, const char* value);
TELVORA_API telvora_status telvora_set_data(telvora_value* container, const char* key, const void* bytes,
                                            size_t size);
TELVORA_API telvora_status telvora_set_date(telvora_value* container, const char* key, double seconds);
TELVORA_API telvora_status telvora_set_value(telvora_value* container, const char* key,
                                             const telvora_value* value);

/* `value` is not NULL. */
TELVORA_API telvora_type telvora_value_type(const telvora_value* value);
/* How many entries, elements or bytes a dictionary, array, string or data has; 0 for all else and NULL. */
TELVORA_API size_t telvora_value_count(const telvora_value* value);
/* The element of an array, or the value of a dictionary's entry, at `index`; NULL where there is none. */
TELVORA_API const telvora_value* telvora_value_at(const telvora_value* value, size_t index);
/* The key of a dictionary's entry at `index`; NULL where there is none. */
TELVORA_API const char* telvora_value_key_at(const telvora_value* value, size_t index);
/* The value under `key` in a dictionary; NULL where there is none. */
TELVORA_API const telvora_value* telvora_value_find(const telvora_value* value, const char* key);
/* A number as a boolean, 0 being false; false for all else and NULL. */
TELVORA_API bool telvora_value_bool(const telvora_value* value);
/* A number or boolean as an integer, cut off toward zero, the nearest where it does not fit; 0 for all else
 * and NULL. */
TELVORA_API int64_t telvora_value_int(const telvora_value* value);
/* A number or boolean as a double, or the seconds of a date; 0 for all else and NULL. */
TELVORA_API double telvora_value_double(const telvora_value* value);
/* The text of a string; NULL for all else and NULL. */
TELVORA_API const char* telvora_value_string(const telvora_value* value);
/* The bytes of data, with their number in `*size` unless `size` is NULL; NULL and 0 for all else and NULL. */
TELVORA_API const void* telvora_value_data(const telvora_value* value, size_t* size);

/* --- Answers ---------------------------------------------------------------------------------------------
 *
 * What a completion is given; it lives for that call.
 */
typedef struct telvora_answer telvora_answer;

typedef void (*telvora_completion)(void* context, const telvora_answer* answer);

/* Whether the call was answered, or why not. */
TELVORA_API telvora_status telvora_answer_status(const telvora_answer* answer);
/* What went wrong, for people; "" when the status is TELVORA_OK. */
TELVORA_API const char* telvora_answer_message(const telvora_answer* answer);
/* What the daemon answered; each operation says what that is. NULL: nothing. */
TELVORA_API const telvora_value* telvora_answer_value(const telvora_answer* answer);
/* Whether a backend's error came with the answer (a flush or an upload of log data): its domain, its code (-1
 * for a condition of the daemon, else the HTTP status of the server) and its description. Each pointer may be
 * NULL; where there is no error, what they point to stays as it was. */
TELVORA_API bool telvora_answer_error(const telvora_answer* answer, const char** domain, int32_t* code,
                                      const char** description);

/* --- Sessions --------------------------------------------------------------------------------------------
 *
 * A session is one connection with the daemon. Its calls are carried out in the order in which they were
 * made, and answered in that order but for flushes; there is no need to wait for an answer before the next
 * call.
 */
typedef struct telvora_session telvora_session;
typedef struct telvora_recorder telvora_recorder;

/* A message of this session, or of one below it in its hierarchy. `session_info`: of the session that sent
 * it. `payload`: merged with that session's user info, or NULL. NULL, 0, 0, 0, NULL: no more messages follow.
 */
typedef void (*telvora_message_handler)(void* context, const telvora_value* session_info, double timestamp,
                                        uint16_t category, uint16_t type, const telvora_value* payload);

typedef enum telvora_connection_event {
    TELVORA_CONNECTION_LOST = 1,    /* the connection has ended */
    TELVORA_CONNECTION_RESTORED = 2 /* the daemon has been told anew what the session is */
} telvora_connection_event;

/* `lost_calls`: of all calls of the session, how many got no answer because a connection ended. `reason`: for
 * people, "" when restored. */
typedef void (*telvora_connection_handler)(void* context, telvora_connection_event event, uint64_t lost_calls,
                                           const char* reason);

typedef struct telvora_session_options {
    size_t size; /* sizeof(telvora_session_options), as the program was compiled */
    /* Where the daemon listens. NULL: $TELVORA_SOCKET, else /run/telvora/com.zandor.telvorad. A program with
     * more rights than its caller (secure_getenv(3)) ignores the variable. */
    const char* socket_path;
    /* What takes the place of the daemon; NULL: none. */
    telvora_recorder* recorder;
    /* The aggregation block: with it, the session asks for the messages. NULL: it does not. */
    telvora_message_handler on_message;
    void* message_context;
    telvora_connection_handler on_connection; /* NULL: none */
    void* connection_context;
} telvora_session_options;

/* A session with these options; NULL for the defaults. Connects to nothing yet. NULL when memory is short. */
TELVORA_API TELVORA_MUST_USE telvora_session* telvora_session_new(const telvora_session_options* options);

/* Ends the session. Calls that still wait are answered with TELVORA_ERROR_CLOSED, and none of the session's
 * callbacks runs once this has returned. So it waits for them: not to be called with a lock held that one of
 * them takes. Called from a callback, it does not wait, and what is left runs soon after. NULL is allowed.
 * Reports that were not answered may be lost: telvora_session_wait() is for that. */
TELVORA_API void telvora_session_free(telvora_session* session);

/* Waits until all calls have been answered, those of other threads too, and their completions have run, for
 * so many milliseconds at most; negative: without end. Returns the first failure of a call since the last
 * wait, of those that were not accepted too; TELVORA_OK if there was none; TELVORA_ERROR_TIMEOUT. From a
 * callback: TELVORA_ERROR_INVALID. */
TELVORA_API telvora_status telvora_session_wait(telvora_session* session, int64_t milliseconds);

/* As told to the telvora_connection_handler. 0 for NULL and in a forked child. */
TELVORA_API uint64_t telvora_session_lost_calls(const telvora_session* session);

/* A copy of this session info for a session one level below it in its hierarchy, with this session ID; NULL
 * when it has no hierarchy token. The caller frees it. */
TELVORA_API telvora_value* telvora_child_info(const telvora_value* session_info, uint32_t session_id);

/* Tells what the session is: `session_info` with the keys kTelvoraSessionInfo..., mandatory; `user_info` with
 * the keys kTelvoraUserInfo..., or NULL; the names of frameworks that the daemon is to check, `count` of
 * them. Answer: nothing. */
TELVORA_API telvora_status telvora_session_set_info(telvora_session* session,
                                                    const telvora_value* session_info,
                                                    const telvora_value* user_info,
                                                    const char* const* frameworks, size_t count,
                                                    telvora_completion completion, void* context);

/* Has the daemon configure the session. Answer: the names of the backends that report or have sampled
 * themselves out, an array of strings; nothing when there is no configuration for this session's client type.
 * A session that is configured already is flushed first, since the daemon makes its backends anew. */
TELVORA_API telvora_status telvora_session_start(telvora_session* session, telvora_completion completion,
                                                 void* context);

/* Tells new user info; NULL withdraws it, but from a session with kTelvoraSessionInfoRequireUserInfo, which
 * keeps what it has. Answer: as that of telvora_session_start(). */
TELVORA_API telvora_status telvora_session_fetch_states(telvora_session* session,
                                                        const telvora_value* user_info,
                                                        telvora_completion completion, void* context);

/* Answer: a URL to show, or "URL not available". */
TELVORA_API telvora_status telvora_session_fetch_display_url(telvora_session* session,
                                                             telvora_completion completion, void* context);

/* Sends a report. `payload`: a dictionary or NULL. Answer: what a backend says of it, a string, or nothing.
 */
TELVORA_API telvora_status telvora_session_send(telvora_session* session, uint16_t category, uint16_t type,
                                                const telvora_value* payload, telvora_completion completion,
                                                void* context);

/* Sends a report as a dictionary with the keys kTelvoraMessageParameters..., which can carry a flag: 1 sends
 * at once, 2 promotes. Answer: as above. */
TELVORA_API telvora_status telvora_session_send_dictionary(telvora_session* session,
                                                           const telvora_value* message,
                                                           telvora_completion completion, void* context);

/* Has the backends send what they hold back. Answer: a backend's, a string or nothing, with an error where
 * one failed or had nothing to flush, or where the configuration names no backends: "The session's bag names
 * no backends". Of the last, a session of a level above 0 in its hierarchy is not told: then there is no
 * answer. */
TELVORA_API telvora_status telvora_session_flush(telvora_session* session, telvora_completion completion,
                                                 void* context);

/* Sends the finish message; neither flushes nor ends the session. Answer: a backend's, a string or nothing.
 */
TELVORA_API telvora_status telvora_session_finish(telvora_session* session, telvora_completion completion,
                                                  void* context);

/* Uploads the file: opens it (open(2), O_RDONLY|O_CLOEXEC|O_NONBLOCK|O_NOFOLLOW), hands it to the daemon, and
 * asks for its upload by file URL (RFC 8089). A relative path starts at the working directory. Blocks on the
 * file system only. Returns TELVORA_ERROR_FILE with errno when the file can't be opened, ELOOP for a symbolic
 * link. The daemon may remove a file that was uploaded. Answer: whether a backend uploaded it, a boolean;
 * false also when 32 uploads of the same user are under way. TELVORA_ERROR_REFUSED, with the reason, when the
 * daemon does not take the file. */
TELVORA_API telvora_status telvora_session_upload_file(telvora_session* session, const char* path,
                                                       telvora_completion completion, void* context);

/* Uploads log records, an array. Answer: whether a backend took them, a boolean, and an error if one came. */
TELVORA_API telvora_status telvora_session_upload_log_data(telvora_session* session,
                                                           const telvora_value* records,
                                                           telvora_completion completion, void* context);

/* Sends one report without a configured session; `session_info`, `user_info` and `payload` as above. It
 * becomes the session's identity in the daemon, so a session that sends several reports is better left to
 * itself. Answer: "finished" or "storebag not available". TELVORA_ERROR_INVALID, at once, when the session
 * info lacks kTelvoraSessionInfoSessionID or kTelvoraSessionInfoClientType: the daemon would not answer. */
TELVORA_API telvora_status telvora_session_send_single(telvora_session* session,
                                                       const telvora_value* session_info,
                                                       const telvora_value* user_info, uint16_t category,
                                                       uint16_t type, const telvora_value* payload,
                                                       telvora_completion completion, void* context);

/* --- Recorders -------------------------------------------------------------------------------------------
 *
 * A recorder takes the daemon's place in a program's own tests: sessions with it in their options connect to
 * nothing; it notes their calls, before the call returns, and answers them. Each call is a dictionary with
 * "operation" and the arguments that it was given:
 *
 *     setSessionInfo     sessionInfo, userInfo, frameworksToCheck, hasAggregationBlock
 *     startConfig, fetchDisplayURL, flushMessages, finishSession
 *     fetchStates        userInfo
 *     sendMessage        category, type, payload, or message alone
 *     uploadFile         path (the file is not opened)
 *     uploadLogData      records
 *     sendSingleMessage  sessionInfo, userInfo, category, type, payload
 *
 * The answers, until others are set: no backend reports; "URL not available"; uploads are done; "finished";
 * nothing for all else.
 */
TELVORA_API TELVORA_MUST_USE telvora_recorder* telvora_recorder_new(void);
/* Sessions that use the recorder keep what they need of it. NULL is allowed. */
TELVORA_API void telvora_recorder_free(telvora_recorder* recorder);

/* From now on, calls of this operation (NULL: of all) get this answer; `value` may be NULL.
 * TELVORA_ERROR_LOST and TELVORA_ERROR_REFUSED come as the status of the answer, all other failures are
 * returned by the call itself. The call is noted either way. */
TELVORA_API telvora_status telvora_recorder_answer(telvora_recorder* recorder, const char* operation,
                                                   telvora_status status, const telvora_value* value);

/* Hands a message to the telvora_message_handlers of the recorder's sessions, whose telvora_session_wait()
 * waits for that too. */
TELVORA_API telvora_status telvora_recorder_deliver(telvora_recorder* recorder,
                                                    const telvora_value* session_info, double timestamp,
                                                    uint16_t category, uint16_t type,
                                                    const telvora_value* payload);

/* How many calls have been noted; 0 for NULL. */
TELVORA_API size_t telvora_recorder_count(const telvora_recorder* recorder);
/* A copy of the call at `index`; NULL where there is none. */
TELVORA_API telvora_value* telvora_recorder_call_copy(const telvora_recorder* recorder, size_t index);
/* Forgets the calls. */
TELVORA_API void telvora_recorder_clear(telvora_recorder* recorder);

#ifdef __cplusplus
}
#endif

#endif
