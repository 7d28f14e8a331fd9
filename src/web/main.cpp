// qelweb: the page, live.
#include "ctl/commands.h"
#include "ctl/terminal.h"
#include "web/CCollector.h"
#include "web/CWebServer.h"
#include "web/listen_address.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <fmt/format.h>
#include <sys/signalfd.h>

namespace {

constexpr char sDefaultListen[] = "127.0.0.1:8470";

// For all threads, since they are started later: the signals come through the descriptor alone.
CFileDescriptor openSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return CFileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC));
}

bool greet(const SListenAddress& address) {
    fmt::print("qelweb: http://{}/ - Ctrl-C ends it\n", address.text());
    if (!address.isLoopback()) {
        complain(fmt::format("whoever reaches {} may look: there is no authentication", address.text()));
    }
    return flushOutput();
}

int serve(SListenAddress address) {
    setProcessName("");
    const CFileDescriptor signals = openSignals();
    std::string error;
    CFileDescriptor listening = listenAt(address, error);
    if (!listening || !signals) {
        complain(listening ? "no descriptor for signals" : error);
        return exitFailed;
    }
    CCollector collector;
    CWebServer server(collector, std::move(listening), address.isLoopback());
    if (!greet(address)) {
        return exitFailed;
    }
    server.run(signals.get());
    collector.end();
    return exitOk;
}

int run(int argc, char** argv) {
    std::string listen = sDefaultListen;
    CLI::App app("Show the feature daemon's state as a live page, and tell it to programs. Read-only.",
                 "qelweb");
    app.set_version_flag("--version", "qelweb " QEL_VERSION);
    app.add_option("--listen", listen,
                   fmt::format("Where to listen; port 0: any that is free ({})", sDefaultListen))
        ->option_text("ADDRESS:PORT");
    app.footer(
        "An IPv6 address stands in brackets. There is no authentication: look who reaches the address.\n"
        "It serves / (the page), /status.json (its data) and /metrics (OpenMetrics).\n"
        "Exit status: 0 after SIGINT or SIGTERM, 1 if it cannot listen, 64 if the command line is wrong.");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qelweb: ") + error.what() + " (--help tells more)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) != 0 ? exitUsage : flushOutput() ? exitOk : exitFailed;
    }
    const auto address = parseListenAddress(listen);
    if (!address) {
        complain(fmt::format("--listen {}: must be IPV4:PORT or [IPV6]:PORT (--help tells more)",
                             printable(listen)));
        return exitUsage;
    }
    return serve(*address);
}

} // namespace

// What comes here is memory or threads that ran out, or an output that cannot be written.
int main(int argc, char** argv) {
    setProgram("qelweb");
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        complain(error.what());
        return exitFailed;
    }
}
