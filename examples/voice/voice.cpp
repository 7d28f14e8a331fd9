// The component of voice.c in C++.
#include "client/qelclient.hpp"

#include <csignal>
#include <cstdio>

namespace {

qel::Client client;

qel::Answer take(const qel::Notification& change, std::string& text) {
    if (change.kind == QEL_ENABLE && change.code == 13) {
        text = "no such hardware";
        return qel::Answer::refused;
    }
    return qel::Answer::ok;
}

} // namespace

int main() {
    qel::Options options;
    options.notify = take;
    int rc = client.open("Voice", std::move(options));
    if (rc != 0) {
        std::fprintf(stderr, "voice: %s\n", qel::error(rc));
        return 1;
    }
    std::signal(SIGTERM, [](int) { client.stop(); });
    rc = client.run();
    client.shutdown("good night");
    return rc == 0 ? 0 : 1;
}
