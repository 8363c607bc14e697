/* SPDX-License-Identifier: MIT */
/*
 * Queues for programs: put messages on the queues of a queue manager of this machine, take them off, and do several of
 * both as one unit of work. Link with -lkvr (pkg-config kvr).
 *
 *     #include <kvr.h>
 *     #include <stdio.h>
 *
 *     int main(void) {
 *         kvr_qm *qm = NULL;
 *         kvr_message *message = NULL;
 *         int failed = kvr_open(NULL, NULL, &qm) || kvr_message_new(&message) ||
 *                      kvr_message_set_data(message, "hello", 5) || kvr_put(qm, "ORDERS", message, 0);
 *         if (failed) {
 *             fprintf(stderr, "%s\n", kvr_error());
 *         }
 *         kvr_message_free(message);
 *         kvr_close(qm);
 *         return failed;
 *     }
 *
 * Results. Every function that returns int returns KVR_OK, another non-negative enum kvr_result where it says so, or a
 * negative one. kvr_error() then has the text, which says what to do. A call that failed changed nothing, but for
 * KVR_E_UNKNOWN. Pointers must not be null but where a comment says what null means; functions with a result
 * refuse it.
 *
 * Units of work. A connection has one unit at a time. What is put and taken with KVR_UNIT joins it and happens when
 * kvr_commit returns, all of it, durably; until then nobody else sees the puts, nor gets what was taken. kvr_rollback,
 * kvr_close and the end of the process, however it comes, undo it: what was taken is back on its queue, in its place,
 * and kvr_message_given_back counts one more. Without KVR_UNIT each call is a unit of its own: a put is durable when it
 * returns; a message that was taken is gone when kvr_get returns, whatever becomes of the program.
 *
 * Several takers. Any number of connections, of one process or of many (256 for each queue), take messages of one
 * queue: each message goes to one of them, and to each of them in the order of the puts. What a process had taken that
 * died is back within a second. A queue that a channel drains has no takers (KVR_E_BUSY), nor can a channel start on a
 * queue while it has takers: from the first kvr_get to kvr_release or kvr_close.
 *
 * Threads. A connection, and a message, is for one thread at a time; different ones may be used at the same time. Only
 * kvr_interrupt may be called from everywhere. Cancelling a thread within a call is not supported.
 *
 * fork. A connection belongs to the process that opened it. In a child all calls with it fail with KVR_E_FORKED, but
 * kvr_close, which frees nothing there that the parent needs. A child opens its own. What a connection has taken stays
 * the parent's.
 *
 * Signals. No call but kvr_interrupt is for signal handlers. The library sets no handlers. A handler of the program
 * that runs while kvr_get waits ends the wait (KVR_INTERRUPTED), with SA_RESTART, too; anywhere else in the library
 * signals are without effect on a call.
 */
#ifndef KVR_H
#define KVR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KVR_API __attribute__((visibility("default")))

/* Limits. What is beyond them fails with KVR_E_TOO_LARGE or KVR_E_TOO_LONG. */
#define KVR_MAX_MESSAGE 2098376     /* bytes of data, the 72 of a transmission header included */
#define KVR_MAX_ATTACHMENTS 30      /* files of one message */
#define KVR_MAX_PATH 511            /* bytes of an attached file's path */
#define KVR_MAX_FILE_PATH 1023      /* of a file message's */
#define KVR_MAX_UNIT_MESSAGES 4096  /* messages of one unit, put and taken */
#define KVR_MAX_UNIT_BYTES 67108864 /* data of the puts of one unit */

enum kvr_result {
    KVR_OK = 0,
    KVR_NONE = 1,        /* no message, in the time given */
    KVR_INTERRUPTED = 2, /* a signal or kvr_interrupt ended the wait */

    KVR_E_NOT_FOUND = -101,    /* no such queue or queue manager */
    KVR_E_EXISTS = -102,       /* it exists already */
    KVR_E_INVALID = -103,      /* an argument is not what it has to be */
    KVR_E_UNKNOWN_ATTR = -104, /* a setting that there is not */
    KVR_E_TOO_LONG = -105,     /* a text does not fit its field */
    KVR_E_TOO_LARGE = -106,    /* a message or a unit beyond the limits */
    KVR_E_BUSY = -107,         /* another process drains the queue, or it has all its takers */
    KVR_E_FULL = -109,         /* the quota is used up, or the disk is full, or too much is taken and not committed */
    KVR_E_IO = -110,           /* the system reported an error */
    KVR_E_VERSION = -111,      /* the store is of another version */
    KVR_E_PERMISSION = -112,   /* not for this user, or not safe from others */
    KVR_E_DAMAGED = -113,      /* the store is damaged, or was removed while it was open */
    KVR_E_UNKNOWN = -116, /* a put or a commit failed in the middle: it may have happened. What was taken comes again,
                             unless it did */
    KVR_E_FORKED = -117,  /* the connection belongs to another process */
    KVR_E_MEMORY = -118   /* no memory */
};

/* Text of the last call of this thread that failed or returned another result than KVR_OK. Valid until the thread's
   next call. Never null. */
KVR_API const char* kvr_error(void);
/* Of the library that is loaded: "1.2.3". */
KVR_API const char* kvr_version(void);

/* ---- Connections ---- */

typedef struct kvr_qm kvr_qm;

/*
 * Opens a queue manager.
 * home   folder of the queue managers; null or "": KVR_HOME, and without it what `kvr` takes then
 * qmgr   its name; null or "": KVR_QMGR, and without it the only one that there is in home
 * out    (out) the connection, for kvr_close; unchanged on failure
 */
KVR_API int kvr_open(const char* home, const char* qmgr, kvr_qm** out);
/* Rolls back and closes. Null is allowed. */
KVR_API void kvr_close(kvr_qm* qm);
/* Name of the queue manager; valid until kvr_close. */
KVR_API const char* kvr_name(const kvr_qm* qm);
/* Ends the kvr_get that waits on this connection, or else its next one that would wait, with KVR_INTERRUPTED. For any
   thread and for signal handlers: a failure leaves no text. */
KVR_API int kvr_interrupt(kvr_qm* qm);

/* ---- Messages ---- */

typedef struct kvr_message kvr_message;

/* Fields of a message's descriptor. Texts and bytes are padded with NULs on the way. */
enum kvr_field {
    /* bytes, up to 32 */
    KVR_MESSAGE_ID = 1,     /* unique one: made by a put where it is not set */
    KVR_CORRELATION_ID = 2, /* of an answer: id of the message that it answers, by custom */
    KVR_GROUP_ID = 3,
    /* texts */
    KVR_FORMAT = 10,      /* up to 8 bytes */
    KVR_REPLY_QUEUE = 11, /* up to 32 */
    KVR_REPLY_QMGR = 12,  /* up to 32 */
    KVR_APPLICATION = 13, /* up to 32; of the putter, filled by a put where it is not set */
    KVR_PUT_DATE = 14,    /* YYYYMMDD, UTC, filled by a put where it is not set */
    KVR_PUT_TIME = 15,    /* HHMMSS, UTC, filled by a put where it is not set */
    /* numbers; carried, none changes what happens to a message */
    KVR_TYPE = 30,
    KVR_CODE = 31,
    KVR_USAGE = 32,
    KVR_EXPIRY = 33,
    KVR_FEEDBACK = 34,
    KVR_ENCODING = 35,
    KVR_CCSID = 36,
    KVR_PRIORITY = 37,
    KVR_PERSISTENCE = 38,
    KVR_SEQUENCE_NUMBER = 39,
    KVR_REPORT = 40,
    KVR_APPLICATION_TYPE = 41
};

/* A blank message, for kvr_message_free. */
KVR_API int kvr_message_new(kvr_message** out);
/* Null is allowed. */
KVR_API void kvr_message_free(kvr_message* message);
/* Blank again; keeps its memory for the next message. */
KVR_API void kvr_message_clear(kvr_message* message);

/* What is set is copied. What is returned is valid until the message is changed, taken into or freed. */

KVR_API int kvr_message_set_data(kvr_message* message, const void* data, size_t size);
/* Data without its transmission header, where it has one; of a file message the path. Never null. `size` may be. */
KVR_API const void* kvr_message_data(const kvr_message* message, size_t* size);

/* Fields of bytes and texts; `size` 0 unsets. A text has no NUL within, dates and times all their digits. */
KVR_API int kvr_message_set_bytes(kvr_message* message, enum kvr_field field, const void* bytes, size_t size);
/* The bytes without the NULs at their end, and one NUL behind them, which does not count. Null for a field of numbers.
   `size` may be null. */
KVR_API const char* kvr_message_bytes(const kvr_message* message, enum kvr_field field, size_t* size);
/* The same for texts with NUL. Null unsets. */
KVR_API int kvr_message_set_text(kvr_message* message, enum kvr_field field, const char* text);
KVR_API const char* kvr_message_text(const kvr_message* message, enum kvr_field field);
KVR_API int kvr_message_set_number(kvr_message* message, enum kvr_field field, int32_t number);
/* 0 for a field of bytes. */
KVR_API int32_t kvr_message_number(const kvr_message* message, enum kvr_field field);

/* Where a message on a transmission queue is bound for: a queue, and a queue manager, which may be null or "". A queue
   that is null or "" unsets: the message is put as it is. It becomes a transmission header of 72 bytes before the data,
   by which a message that was taken is known to have one. */
KVR_API int kvr_message_set_destination(kvr_message* message, const char* queue, const char* qmgr);
/* Of a message with a transmission header; "" otherwise. */
KVR_API const char* kvr_message_destination_queue(const kvr_message* message);
KVR_API const char* kvr_message_destination_qmgr(const kvr_message* message);

/* Adds a file, by its full path: it is read when the message is sent, and stays as it is until then. Nobody looks
   before whether it is there. */
KVR_API int kvr_message_attach(kvr_message* message, const char* path);
KVR_API size_t kvr_message_attachments(const kvr_message* message);
/* Null beyond the last one. */
KVR_API const char* kvr_message_attachment(const kvr_message* message, size_t index);

/* Makes it a file message: the channel sends the file of this full path instead of data. To set data undoes it. */
KVR_API int kvr_message_set_file(kvr_message* message, const char* path);
/* Path of a file message; null for any other. */
KVR_API const char* kvr_message_file(const kvr_message* message);

/* Of a message that was taken or browsed: its place in the queue, which no other message of that queue ever has. */
KVR_API uint64_t kvr_message_place(const kvr_message* message);
/* Times that it was taken and came back, because a unit was rolled back or its process died. */
KVR_API uint32_t kvr_message_given_back(const kvr_message* message);
/* Of a browsed message: not 0 while somebody has it in hand, or a channel holds it back. */
KVR_API int kvr_message_is_in_hand(const kvr_message* message);
KVR_API int kvr_message_is_held(const kvr_message* message);

/* ---- Put, get, commit ---- */

/* Flag of puts and gets: part of the connection's unit of work. */
#define KVR_UNIT 1U

/*
 * Puts a message. Its id, and whatever else a put fills, can be read from `message` then, also after KVR_E_UNKNOWN; the
 * next put of it fills that anew. Its place is not set.
 * With KVR_UNIT the message is copied, and refused here for what is wrong with it, but for room, which the commit
 * finds.
 */
KVR_API int kvr_put(kvr_qm* qm, const char* queue, kvr_message* message, unsigned flags);
/* Puts all of them, in this order, or none. */
KVR_API int kvr_put_many(kvr_qm* qm, const char* queue, kvr_message* const* messages, size_t count, unsigned flags);

#define KVR_FOREVER (-1)

typedef struct kvr_get_options {
    size_t size;     /* sizeof(kvr_get_options), set by KVR_GET_OPTIONS */
    unsigned flags;  /* KVR_UNIT or 0 */
    int64_t wait_ms; /* longest wait for a message: 0 none, KVR_FOREVER without end */
    /* Only messages with these ids, all their bytes but for NULs at the end; null: any. Each look goes through the
       queue: right for short queues. */
    const void* message_id;
    size_t message_id_size;
    const void* correlation_id;
    size_t correlation_id_size;
    /* A message that was given back `max_tries` times or more is put on queue `aside`, as it is, instead of being
       handed out; each in a unit of its own, whatever the unit of this get. 0: none is. */
    uint32_t max_tries;
    const char* aside;
} kvr_get_options;

/* Initializer: any message, no wait, no unit. */
#define KVR_GET_OPTIONS                                                                                                \
    { sizeof(kvr_get_options), 0, 0, NULL, 0, NULL, 0, 0, NULL }

/*
 * Takes the oldest message that was asked for.
 * options   null: as KVR_GET_OPTIONS
 * message   (in/out) one of kvr_message_new, whose contents are replaced; unchanged unless KVR_OK is returned
 * Returns KVR_OK, KVR_NONE, KVR_INTERRUPTED or an error.
 */
KVR_API int kvr_get(kvr_qm* qm, const char* queue, const kvr_get_options* options, kvr_message* message);

/* Does the unit of work. A failure leaves it as it is, to be committed again or rolled back; KVR_E_UNKNOWN ends it. */
KVR_API int kvr_commit(kvr_qm* qm);
/* Undoes it. Without a unit nothing. */
KVR_API int kvr_rollback(kvr_qm* qm);

/* The connection is no taker of this queue any more, so that a channel may drain it. KVR_E_BUSY while the unit has
   messages of it. */
KVR_API int kvr_release(kvr_qm* qm, const char* queue);

/* ---- Looking ---- */

/* Shows the first message whose place is `from` or a later one, those in hand and held ones, too, and leaves it there.
   The next one: from kvr_message_place(message) + 1. Returns KVR_OK, KVR_NONE or an error. */
KVR_API int kvr_browse(kvr_qm* qm, const char* queue, uint64_t from, kvr_message* message);

/* Messages on the queue, those in hand and held ones included, and bytes of their data. Either may be null. */
KVR_API int kvr_depth(kvr_qm* qm, const char* queue, uint64_t* messages, uint64_t* bytes);

#ifdef __cplusplus
}
#endif

#endif
