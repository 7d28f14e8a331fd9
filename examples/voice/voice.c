/* A small component, to show how one is tested: voice.script beside it plays the daemon for it.
 *
 *     voice-c        announces itself as Voice; stops at SIGTERM */
#include "client/qelclient.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

static qel_client* client;

/* This component has all that its features need, but the hardware for 13. */
static int take(void* user, const struct qel_notification* change, char* text) {
    (void)user;
    if (change->kind == QEL_ENABLE && change->code == 13) {
        strcpy(text, "no such hardware");
        return QEL_REFUSED;
    }
    return QEL_OK;
}

static void stop(int signal) {
    (void)signal;
    qel_stop(client);
}

int main(void) {
    struct qel_options options = {.size = sizeof options, .notify = take};
    int rc = qel_open("Voice", &options, &client);
    if (rc != 0) {
        fprintf(stderr, "voice: %s\n", qel_strerror(rc));
        return 1;
    }
    signal(SIGTERM, stop);
    rc = qel_run(client, QEL_FOREVER);
    qel_shutdown(client, "good night");
    qel_close(client);
    return rc == 0 ? 0 : 1;
}
