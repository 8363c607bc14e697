/* SPDX-License-Identifier: MIT */
/*
 * Puts each line of standard input as a message on a queue: producer QUEUE. The queue manager is that of KVR_HOME and
 * KVR_QMGR. Lines go in units of a hundred: each of them is on the queue whole, or not at all.
 */
#include <kvr.h>
#include <stdio.h>
#include <string.h>

#define LINES_OF_A_UNIT 100

static int put_line(kvr_qm* qm, const char* queue, kvr_message* message, const char* line) {
    int result = kvr_message_set_data(message, line, strcspn(line, "\n"));
    return result != KVR_OK ? result : kvr_put(qm, queue, message, KVR_UNIT);
}

static int put_lines(kvr_qm* qm, const char* queue, kvr_message* message) {
    static char line[65536];
    unsigned long count = 0;
    int result = KVR_OK;
    while (result == KVR_OK && fgets(line, sizeof line, stdin) != NULL) {
        result = put_line(qm, queue, message, line);
        if (result == KVR_OK && ++count % LINES_OF_A_UNIT == 0) {
            result = kvr_commit(qm);
        }
    }
    return result != KVR_OK ? result : kvr_commit(qm);
}

int main(int argc, char** argv) {
    kvr_qm* qm = NULL;
    kvr_message* message = NULL;
    int result = KVR_E_INVALID;
    if (argc != 2) {
        fprintf(stderr, "usage: producer QUEUE\n");
        return 2;
    }
    result = kvr_open(NULL, NULL, &qm);
    if (result == KVR_OK) {
        result = kvr_message_new(&message);
    }
    if (result == KVR_OK) {
        result = put_lines(qm, argv[1], message);
    }
    if (result != KVR_OK) {
        fprintf(stderr, "producer: %s\n", kvr_error());
    }
    kvr_message_free(message);
    kvr_close(qm); /* rolls back what was not committed */
    return result == KVR_OK ? 0 : 1;
}
