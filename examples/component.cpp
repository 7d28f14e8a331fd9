// A component to start from: it takes up what the daemon gives it, and says so.
//
//     example-component [NAME]        stops at SIGINT or SIGTERM
#include "client/qelclient.h"

#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

qel_client* client = nullptr;

// Here the component does what the feature asks for. What it returns becomes the answer to the daemon; a text
// goes into the daemon's log.
int takeFeature(void*, const qel_notification* change, char* text) {
    switch (change->kind) {
    case QEL_ENABLE:
        if (change->code == 13) { // whatever this component cannot do
            std::strcpy(text, "no such hardware");
            return QEL_REFUSED;
        }
        std::printf("enable  %u with %u\n", change->code, change->data);
        return QEL_OK;
    case QEL_MODIFY:
        std::printf("modify  %u from %u to %u\n", change->code, change->data, change->new_data);
        return QEL_OK;
    case QEL_DISABLE:
        std::printf("disable %u with %u\n", change->code, change->data);
        return QEL_OK;
    case QEL_OVERDUE:
        std::printf("too slow with %u\n", change->code);
        return QEL_OK;
    default:
        return QEL_REFUSED;
    }
}

void stop(int) {
    qel_stop(client);
}

} // namespace

int main(int argc, char** argv) {
    qel_options options = {};
    options.size = sizeof options;
    options.notify = takeFeature;
    int rc = qel_open(argc > 1 ? argv[1] : "Voice", &options, &client);
    if (rc != 0) {
        std::fprintf(stderr, "%s\n", qel_strerror(rc));
        return 1;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);

    // A component that keeps its features over a restart of its own calls qel_hold for each of them here.

    // Finds the daemon, fetches the list, then answers what comes, also over restarts of the daemon.
    rc = qel_run(client, QEL_FOREVER);

    std::printf("%s, holding %d features\n", qel_strerror(rc), qel_features(client, nullptr, 0));
    qel_shutdown(client, "good night");
    qel_close(client);
    return rc == 0 ? 0 : 1;
}
