/* Compiled as C11: the header must stay one that a C program can use. */
#include "client/qelclient.h"

int openFromC(qel_client** client);

int openFromC(qel_client** client) {
    struct qel_options options = {.size = sizeof options, .answer_timeout_ms = 100};
    return qel_open("FromC", &options, client);
}
