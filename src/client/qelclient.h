/* libqelclient: what a component links to receive its features from the daemon.
 *
 * A component without special needs takes five calls:
 *
 *     qel_client* client;
 *     struct qel_options options = {.size = sizeof options, .notify = takeFeature};
 *     int rc = qel_open("Voice", &options, &client);
 *     if (rc == 0) rc = qel_run(client, QEL_FOREVER);   (until somebody calls qel_stop)
 *     qel_shutdown(client, "good night");
 *     qel_close(client);
 *
 * qel_run finds the daemon, announces the component, fetches its list, starts monitoring, and then answers
 * every notification with what the callback returns. The library keeps the table of the features held. When
 * the daemon has been restarted, the library finds it again, announces the component with what it holds, and
 * calls the callback for every difference, and for nothing else. Once a minute, and whenever something looks
 * odd, it compares what the component holds with what the daemon says, and tells the differences likewise: so
 * whatever message was lost, the component ends up with what the list says.
 *
 * A program with a poll loop of its own waits on qel_fd() and calls qel_dispatch() instead:
 *
 *     struct pollfd wait = {.fd = qel_fd(client), .events = POLLIN};
 *     for (int next = 0; rc >= 0; rc = qel_dispatch(client, &next)) poll(&wait, 1, next);
 *
 * Results: 0 or a positive count is success; a negative number is one of QEL_E..., which
 * qel_strerror() puts in words.
 *
 * Times are in milliseconds. 0: handle what is there, some hundred notifications at most, and do not wait.
 * QEL_FOREVER: no limit. No call takes longer than it was asked to, except for the callback that is running
 * when the time is up, and for those that tell the differences at the end of a fetch or of a comparison,
 * which belong together.
 *
 * Threads: there is one client in a process, since the message framework gives a process one endpoint. It
 * belongs to the client from qel_open to qel_close. One thread at a time uses the client. Only qel_stop may
 * be called at any time, from any thread and from a signal handler. Callbacks run on the thread that is in
 * the library, and only inside qel_announce, qel_fetch, qel_monitor, qel_wait, qel_run, qel_dispatch and
 * (trace only) qel_shutdown. A callback may call the queries (qel_features, qel_state, qel_fd, qel_version)
 * and qel_stop; every other call returns QEL_EBUSY there. An exception that a callback throws goes no
 * further: it counts as QEL_REFUSED, or as nothing if it is the trace's.
 *
 * Growth: structures begin with their size, and get new members at the end only; numbers in use keep their
 * meaning. So a program runs with a newer library than it was built with. */
#ifndef QEL_CLIENT_QELCLIENT_H
#define QEL_CLIENT_QELCLIENT_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define QEL_API __attribute__((visibility("default")))
#else
#define QEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Of this header; qel_version() is that of the library. */
#define QEL_VERSION "0.1.0"

enum {
    QEL_FOREVER = -1,        /* time limit: none */
    QEL_MAX_NAME = 16,       /* characters of a component's name */
    QEL_MAX_ANNOUNCED = 100, /* pairs that an announcement can name; a component may hold more */
    QEL_TEXT_SIZE = 501      /* bytes of a reply text, NUL included */
};

/* Errors. */
enum {
    QEL_EINVAL = -1,    /* an argument is null, too long or out of range */
    QEL_EBUSY = -2,     /* a client is open already; or the call comes from a callback */
    QEL_EPLATFORM = -3, /* the message framework refused an endpoint */
    QEL_ENODAEMON = -4, /* no daemon was found within the time */
    QEL_ETIMEDOUT = -5, /* the daemon is there, but the call was not done within the time */
    QEL_ESTOPPED = -6,  /* qel_stop was called */
    QEL_ENOMEM = -7,
    QEL_EREPLACED = -8 /* another living process has announced the component's name; see below */
};

/* A name belongs to whoever has announced it last. A client that finds its name with another living process
 * does not fight for it: it sends the daemon nothing more, keeps its table, and every call that would talk to
 * the daemon returns QEL_EREPLACED at once, until qel_announce takes the name back or qel_shutdown gives the
 * component up. It finds out within a minute while it monitors, where the daemon can tell. */

/* What a notification means for this component, given what it holds; the message behind it may have had
 * another name. QEL_OVERDUE: the daemon has waited too long for the answer about the feature. It no longer
 * awaits one, so the callback's result is ignored and no answer is sent. An enable that is still due comes
 * again; a disable does not, so carry it out all the same. */
enum {
    QEL_ENABLE = 1,  /* take the feature up: code, data */
    QEL_MODIFY = 2,  /* a feature held changes: code, data (held so far), new_data */
    QEL_DISABLE = 3, /* a feature held is withdrawn: code, data (held so far) */
    QEL_OVERDUE = 4  /* the daemon gave up waiting: code, data */
};

/* What the callback answers. */
enum {
    QEL_OK = 0,      /* carried out */
    QEL_REFUSED = 1, /* not carried out; any value that is not one of these counts as this */
    QEL_NO_REPLY = 2 /* say nothing: the daemon counts the answer as overdue after 10 seconds */
};

/* How far the client has come, each state including the ones before it. */
enum {
    QEL_STATE_SEEKING = 0, /* no daemon, or not announced to it yet */
    QEL_STATE_ANNOUNCED = 1,
    QEL_STATE_FETCHED = 2,   /* the table holds the whole list */
    QEL_STATE_MONITORING = 3 /* changes arrive by themselves */
};

typedef struct qel_client qel_client;

struct qel_pair {
    uint32_t code;
    uint32_t data;
};

struct qel_notification {
    uint32_t size; /* of what the library has filled in; members behind it are not there */
    int kind;      /* QEL_ENABLE to QEL_OVERDUE */
    uint32_t code;
    uint32_t data;
    uint32_t new_data; /* QEL_MODIFY: the data from now on; else 0 */
    /* 1: a difference found by fetching the list or comparing with the daemon, which is not told what the
     * callback answers. 0: the daemon awaits the answer (except with QEL_OVERDUE). */
    int fetched;
};

/* Called for every change. Returns QEL_OK, QEL_REFUSED or QEL_NO_REPLY, and may write a text for the
 * daemon's log into `text` (QEL_TEXT_SIZE bytes, empty before the call; not sent where `fetched` is 1). The
 * table follows the answer: with QEL_OK a feature is held, changed or dropped, otherwise it stays as it was.
 * Only what is found withdrawn with `fetched` 1 is dropped whatever the answer. Features refused are offered
 * again by the next fetch, and by the daemon with its next list. Should return within 10 seconds: the daemon
 * waits no longer for an answer. */
typedef int (*qel_notify_fn)(void* user, const struct qel_notification* notification, char* text);

/* Sees every message of the conversation, though not the questions of comparisons, as it is sent (`sent` 1) or
 * received (0), also those that the library then ignores. `body` is valid during the call. */
typedef void (*qel_trace_fn)(void* user, int sent, const uint8_t* body, size_t length);

struct qel_options {
    uint32_t size; /* sizeof(struct qel_options) */
    /* How long an answer from the daemon may take at least before the client starts over. Up to half as much
     * is added by chance; each time in vain doubles it, up to an hour, until answers come in time again. 0:
     * the default of 60 seconds, in which the daemon can answer 1,000 clients that start at the same moment.
     * A request that was lost is noticed within half a minute all the same, where the daemon can tell, and a
     * daemon that has gone at once (on a platform that does not tell: within half a second, or 10 seconds at
     * most among a thousand processes and more). */
    uint32_t answer_timeout_ms;
    qel_notify_fn notify; /* null: everything is answered QEL_OK */
    qel_trace_fn trace;   /* null: none */
    void* user;           /* handed to both; the caller's */
    /* 1: call `notify` also when nothing changes: for a feature that is held with this very data
     * (QEL_ENABLE), or withdrawn and not held (QEL_DISABLE). The daemon repeats features with every new list;
     * by default the library answers such repetitions itself, with QEL_OK. */
    int notify_unchanged;
    int reserved; /* 0 */
};

/* Opens the process's endpoint for the component `name`, 1 to QEL_MAX_NAME characters. `options` is copied;
 * null means all zero. On success *client belongs to the caller until qel_close; otherwise it is left alone.
 * Sends nothing, does not wait for the daemon, and leaves the process's limits as they are. QEL_EINVAL (also
 * for options of a wrong size, or with something set that this library does not know), QEL_EBUSY,
 * QEL_EPLATFORM, QEL_ENOMEM. */
QEL_API int qel_open(const char* name, const struct qel_options* options, qel_client** client);

/* Enters a feature that the component still holds from an earlier run. To be called before the announcement,
 * which names the first QEL_MAX_ANNOUNCED in order of code. 0 for success; QEL_EINVAL (also for the pair 0,
 * 0, which is no feature), QEL_EBUSY, QEL_ENOMEM. */
QEL_API int qel_hold(qel_client* client, uint32_t code, uint32_t data);

/* Each of these finds the daemon if need be and brings the client up to a state. What was asked for once is
 * done again whenever the daemon has been restarted, within the calls that handle messages.
 *
 * qel_fetch may be called any number of times: after a complete fetch, the next call fetches the list again.
 * qel_monitor does not imply a fetch: without one, the daemon notifies, one by one, the features that the
 * announcement did not name as held.
 *
 * 0 (qel_fetch: the number of features held) for success. QEL_ENODAEMON, QEL_ETIMEDOUT: not there yet, and
 * the next call goes on from here. QEL_ESTOPPED, QEL_EREPLACED, QEL_EBUSY, QEL_EINVAL, QEL_ENOMEM. */
QEL_API int qel_announce(qel_client* client, int timeout_ms);
QEL_API int qel_fetch(qel_client* client, int timeout_ms);
QEL_API int qel_monitor(qel_client* client, int timeout_ms);

/* Handles messages and keeps up the connection with the daemon, until there was a notification or the time is
 * up. Returns the number of notifications handled (0: the time is up); QEL_ESTOPPED, QEL_EREPLACED,
 * QEL_EBUSY, QEL_EINVAL, QEL_ENOMEM. A daemon that has gone is no error: the call waits for it to come back. */
QEL_API int qel_wait(qel_client* client, int timeout_ms);

/* All in one: announces, fetches, monitors, and keeps that up until qel_stop or until the time is up. Then it
 * returns 0 if the component was monitoring at any time during the call; if not, QEL_ESTOPPED after qel_stop,
 * else QEL_ENODAEMON or QEL_ETIMEDOUT. QEL_EREPLACED, QEL_EBUSY, QEL_EINVAL, QEL_ENOMEM. */
QEL_API int qel_run(qel_client* client, int timeout_ms);

/* For the caller's own loop. The descriptor is readable (poll(2), POLLIN) when there is something to do. It
 * is the library's, to be waited on only, and the same from qel_open to qel_close. QEL_EINVAL; QEL_EPLATFORM
 * where the message framework has none: then only the time counts. */
QEL_API int qel_fd(const qel_client* client);

/* Does what is there to be done, as qel_run does, and does not wait. Call it when qel_fd is readable, and when
 * *next_ms milliseconds have passed (never negative; 0: there is more to do at once). `next_ms` may be null.
 * Returns the number of notifications handled; QEL_ESTOPPED, QEL_EREPLACED, QEL_EBUSY, QEL_EINVAL,
 * QEL_ENOMEM. Only with 0 or more is *next_ms set. */
QEL_API int qel_dispatch(qel_client* client, int* next_ms);

/* Makes the call that is under way, or if there is none the next one that could wait, end at once (plus the
 * time of a callback), with QEL_ESTOPPED unless its description says otherwise. Makes qel_fd readable. */
QEL_API void qel_stop(qel_client* client);

/* Tells the daemon that the component is leaving, with a text for the daemon's log (null: none; cut at
 * QEL_TEXT_SIZE - 1 bytes). The table stays as it is, and qel_announce begins again. The daemon does not
 * answer this message, so the call does not wait. 0 when it was sent; QEL_ENODAEMON when there was no daemon
 * that knew the component, or sending failed; QEL_EBUSY, QEL_EINVAL, QEL_ENOMEM. */
QEL_API int qel_shutdown(qel_client* client, const char* text);

/* Closes the endpoint and frees the client. Tells the daemon nothing: call qel_shutdown before, unless the
 * component will be back soon and its record should stay. Null is allowed. In a callback, or while another
 * thread is inside the client, it does nothing. */
QEL_API void qel_close(qel_client* client);

/* Writes at most `room` of the features held to `pairs`, in order of code, and returns how many are held.
 * `pairs` may be null if `room` is 0. QEL_EINVAL, QEL_ENOMEM. */
QEL_API int qel_features(const qel_client* client, struct qel_pair* pairs, size_t room);

/* QEL_STATE_SEEKING to QEL_STATE_MONITORING; QEL_EINVAL. */
QEL_API int qel_state(const qel_client* client);

/* QEL_VERSION of the library. Never null; the text is static. Any thread. */
QEL_API const char* qel_version(void);

/* An error in words, without a full stop. Never null; the text is static. Any thread. */
QEL_API const char* qel_strerror(int error);

#ifdef __cplusplus
}
#endif

#endif
