#include "web/CWebServer.h"

#include "web/CViewers.h"
#include "web/listen_address.h"
#include "web/page_bytes.h"

#include <algorithm>
#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr int tRoomCheck = 100;  // milliseconds, while somebody waits for room
constexpr int tShortage = 100;   // after a connection could not be taken
constexpr size_t nPiece = 65536; // of an answer, written at once

constexpr char sPlain[] = "text/plain; charset=utf-8";
constexpr char sJson[] = "application/json";

// The connection as the library reads and writes it.
class CStream : public httplib::Stream {
public:
    explicit CStream(CViewer& viewer) : m_oViewer(viewer) {}

    using httplib::Stream::write;
    bool is_readable() const override { return true; } // the viewer sees to the time
    bool is_writable() const override { return true; }
    ssize_t read(char* bytes, size_t size) override {
        if (m_nAt == m_nEnd) {
            const ssize_t length = m_oViewer.read(m_aBuffer, sizeof m_aBuffer);
            if (length <= 0) {
                return length;
            }
            m_nAt = 0;
            m_nEnd = static_cast<size_t>(length);
        }
        const size_t taken = std::min(size, m_nEnd - m_nAt);
        std::copy_n(m_aBuffer + m_nAt, taken, bytes);
        m_nAt += taken;
        return static_cast<ssize_t>(taken);
    }
    ssize_t write(const char* bytes, size_t size) override { return m_oViewer.write(bytes, size); }
    // Nobody asks who looks.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return 0; }

private:
    CViewer& m_oViewer;
    char m_aBuffer[4096] = {};
    size_t m_nAt = 0;
    size_t m_nEnd = 0;
};

// The library's server without its sockets and threads: it reads a request and writes the answer.
class CHttp : public httplib::Server {
public:
    CHttp() { svr_sock_ = 0; } // or it takes itself for one that is ending

    // A range of a text that is made anew each second means nothing, and many of them would be many answers.
    void answer(CViewer& viewer) {
        CStream stream(viewer);
        bool isClosed = false;
        process_request(stream, true, isClosed, [](httplib::Request& request) { request.ranges.clear(); });
        viewer.finish();
    }
};

void refuse(httplib::Response& response, int status, const std::string& why) {
    response.status = status;
    response.set_content(why + "\n", sPlain);
}

// Shared by all who get it, and not copied.
void give(httplib::Response& response, const SharedText& text, const char* type) {
    response.set_content_provider(text->size(), type,
                                  [text](size_t at, size_t length, httplib::DataSink& sink) {
                                      return sink.write(text->data() + at, std::min(length, nPiece));
                                  });
}

// --- What there is ---

void givePage(CCollector&, const httplib::Request&, httplib::Response& response) {
    static const SharedText page = [] {
        std::string text(pageBytes());
        return std::make_shared<std::string>(text.erase(text.find(sPagePlace), sPagePlace.size()));
    }();
    give(response, page, "text/html; charset=utf-8");
}

void giveStatus(CCollector& collector, const httplib::Request& request, httplib::Response& response) {
    const SServed served = collector.status(request.get_param_value("since"));
    response.set_header("Qel-Next", std::to_string(served.m_tNext.count()));
    if (served.m_pText) {
        give(response, served.m_pText, sJson);
    } else if (served.m_sWhyNot.empty()) {
        response.status = 204;
    } else {
        response.status = 503;
        response.set_content(CJson({{"silent_why", served.m_sWhyNot}}).dump(), sJson);
    }
}

// The format before OpenMetrics, for whoever does not ask for that one.
void giveMetrics(CCollector& collector, const httplib::Request& request, httplib::Response& response) {
    const std::string accepted = request.get_header_value("Accept");
    const bool isOpen = accepted.find("application/openmetrics-text") != std::string::npos;
    const SServed served = collector.metrics(isOpen ? EMetricsFormat::openMetrics : EMetricsFormat::text);
    if (served.m_pText) {
        give(response, served.m_pText,
             isOpen ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                    : "text/plain; version=0.0.4; charset=utf-8");
    } else {
        refuse(response, 503, served.m_sWhyNot);
    }
}

struct SPath {
    const char* m_szPath;
    void (*m_fnGive)(CCollector& collector, const httplib::Request& request, httplib::Response& response);
};

constexpr SPath aPaths[] = {{"/", givePage}, {"/status.json", giveStatus}, {"/metrics", giveMetrics}};

} // namespace

struct CWebServer::SInner {
    SInner(CCollector& collector, bool isLoopback);
    void handle(const httplib::Request& request, httplib::Response& response);
    bool isMeant(const httplib::Request& request, httplib::Response& response) const;

    CCollector& m_oCollector;
    bool m_bLoopback;
    CHttp m_oHttp;
    CViewers m_oViewers; // last: its threads use the others
};

CWebServer::SInner::SInner(CCollector& collector, bool isLoopback)
    : m_oCollector(collector), m_bLoopback(isLoopback), m_oViewers([this](CViewer& viewer) {
          try {
              m_oHttp.answer(viewer);
          } catch (const std::exception&) { // memory has run out: this one gets no answer
          }
      }) {
    m_oHttp.set_default_headers(
        {{"Content-Security-Policy", std::string(pagePolicy()) + "; frame-ancestors 'none'"},
         {"X-Content-Type-Options", "nosniff"},
         {"Cache-Control", "no-store"},
         {"Referrer-Policy", "no-referrer"},
         {"Cross-Origin-Resource-Policy", "same-origin"}});
    m_oHttp.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        handle(request, response);
        return httplib::Server::HandlerResponse::Handled;
    });
}

bool CWebServer::SInner::isMeant(const httplib::Request& request, httplib::Response& response) const {
    if (request.get_header_value_count("Host") != 1) {
        refuse(response, 400, "A request has one Host.");
        return false;
    }
    if (m_bLoopback && !isLoopbackHost(request.get_header_value("Host"))) {
        refuse(response, 403, "This is only for who asks for localhost, 127.0.0.1 or [::1].");
        return false;
    }
    return true;
}

void CWebServer::SInner::handle(const httplib::Request& request, httplib::Response& response) {
    if (!isMeant(request, response)) {
        return;
    }
    if (request.method != "GET" && request.method != "HEAD") {
        response.set_header("Allow", "GET, HEAD");
        refuse(response, 405, "There is nothing to be changed here.");
        return;
    }
    const auto* found = std::find_if(std::begin(aPaths), std::end(aPaths),
                                     [&](const SPath& path) { return request.path == path.m_szPath; });
    if (found == std::end(aPaths)) {
        refuse(response, 404, "There are /, /status.json and /metrics.");
        return;
    }
    found->m_fnGive(m_oCollector, request, response);
}

CWebServer::CWebServer(CCollector& collector, CFileDescriptor listening, bool isLoopback)
    : m_oListening(std::move(listening)), m_pInner(std::make_unique<SInner>(collector, isLoopback)) {}

CWebServer::~CWebServer() = default;

void CWebServer::run(int end) {
    CViewers& viewers = m_pInner->m_oViewers;
    for (;;) {
        pollfd waiting[] = {{m_oListening.get(), POLLIN, 0}, {end, POLLIN, 0}};
        ::poll(waiting, 2, viewers.makeRoom() ? tRoomCheck : -1);
        if (waiting[1].revents != 0) {
            return;
        }
        if (waiting[0].revents == 0) {
            continue;
        }
        CFileDescriptor connection(::accept4(m_oListening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (connection) {
            viewers.add(std::move(connection));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            ::poll(&waiting[1], 1, tShortage); // it stays ready meanwhile, which would keep this busy
        }
    }
}
