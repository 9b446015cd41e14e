// The application framework, with the requests that it hands over, and the log.

#include <atomic>
#include <cstdlib>
#include <mutex>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "appcore_agent.h"
#include "check.h"
#include "dlog.h"
#include "main_loop.h"
#include "report.h"

// The main loop.

static constexpr useconds_t POLL_MICROSECONDS = 1000;
static constexpr int PATIENCE = 2000;      ///< polls without an event
static constexpr int LONG_PATIENCE = 6000; ///< the same, in an exchange, which may wait for a network
static constexpr int AFTERMATH = 50;       ///< polls after the last one

/// The events of a run, for the process that waits for them.
struct Seen {
    std::atomic<unsigned> count;
    char application[Report::SIZE];
    char exchange[Report::SIZE];
};

static auto &seen = *make_shared_memory<Seen>();
static pid_t main_thread = 0;
bool is_calling = false;

static void add(char (&events)[Report::SIZE], const std::string &event)
{
    static std::mutex mutex; // a platform may be wrong, and call on two threads
    const std::lock_guard lock(mutex);
    const size_t length = std::string(events).size();
    snprintf(events + length, sizeof events - length, " %s%s%s", event.c_str(),
             gettid() == main_thread ? "" : "[on another thread]", is_calling ? "[within a call]" : "");
    seen.count++;
}

void note_event(const std::string &event)
{
    add(seen.exchange, event);
}

static int run_application(const Run &run)
{
    service_app_callbacks callbacks = {};
    callbacks.create = [](void *data) {
        add(seen.application, "create");
        return static_cast<const Run *>(data)->create();
    };
    callbacks.terminate = [](void *) { add(seen.application, "terminate"); };
    callbacks.app_control = [](app_control_handle request, void *data) {
        add(seen.application, "app_control");
        run_to_end([&] { static_cast<const Run *>(data)->control(request); });
    };
    char name[] = "ime-backup-check";
    char *arguments[] = {name, nullptr};
    return CALL(service_app_main(1, arguments, &callbacks, const_cast<Run *>(&run)));
}

Events run_main_loop(const Run &run)
{
    seen.count = 0;
    *seen.application = *seen.exchange = '\0';
    const pid_t child = start_apart([&] {
        main_thread = gettid();
        const int result = run_application(run);
        add(seen.application, result == 0 ? "returned(0)" : "returned(not 0)");
    });
    unsigned count = 0;
    int status = 0;
    for (int polls = 0; waitpid(child, &status, WNOHANG) == 0; polls++) {
        if (const unsigned now = seen.count; now != count) {
            count = now;
            polls = 0;
        }
        const bool is_over =
            (std::string(seen.application) + seen.exchange).find(run.last) != std::string::npos;
        const int patience = is_over ? AFTERMATH : *seen.exchange == '\0' ? PATIENCE : LONG_PATIENCE;
        if (polls == patience) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            end_if_reported();
            return {seen.application, seen.exchange};
        }
        usleep(POLL_MICROSECONDS);
    }
    end_as(status);
    return {seen.application, seen.exchange};
}

/// Runs the main loop for one request, up to an event.
static Events run_request(const char *last, const std::function<void(app_control_handle)> &control)
{
    const Events events = run_main_loop({.control = control, .last = last});
    if (events.application == " create")
        skip("no request reaches a program that is started by hand");
    return events;
}

static constexpr Check APPCORE_AGENT_CHECKS[] = {
    {"service_app_main() calls create, app_control and terminate, each once and on its own thread",
     "It would serve a request twice or never, or two at once.",
     [] {
         const Events events = run_request("returned", [](app_control_handle request) {
             app_control_handle reply = nullptr;
             app_control_create(&reply);
             if (app_control_reply_to_launch_request(reply, request, 0) != 0)
                 skip("the request can't be answered");
             app_control_destroy(reply);
             service_app_exit();
         });
         note("service_app_main(), with service_app_exit() in app_control");
         expect(events.application, " create app_control terminate returned(0)");
     }},

    {"service_app_main() ends with another result than 0 when create gives false",
     "Its client would take a service that could not start for one that did its work.",
     [] {
         const Events events = run_main_loop({.create = [] { return false; }, .last = "returned"});
         note("service_app_main(), with create giving false");
         expect(events.application, " create returned(not 0)");
     }},
};

extern const Library APPCORE_AGENT = {"appcore-agent", APPCORE_AGENT_CHECKS};

// Requests.

static constexpr Check APP_CONTROL_CHECKS[] = {
    {"app_control_create() makes a handle each time, which app_control_destroy() releases",
     "It would answer no request, and its client would wait.",
     [] {
         app_control_handle one = nullptr;
         app_control_handle other = nullptr;
         expect(CALL(app_control_create(&one)), 0);
         expect(CALL(app_control_create(&other)), 0);
         expect(one != nullptr && other != nullptr && one != other, true, "two handles: ");
         expect(CALL(app_control_destroy(one)), 0);
         expect(CALL(app_control_destroy(other)), 0);
     }},

    {"null is refused, and outputs stay untouched", "It would go on with a request that it does not have.",
     [] {
         char text[] = "";
         char *operation = text;
         expect_error(CALL(app_control_get_operation(nullptr, &operation)));
         expect(operation == text, true, "the output is untouched: ");
         expect_error(CALL(app_control_create(nullptr)));
         expect_error(CALL(app_control_destroy(nullptr)));
         expect_error(CALL(app_control_reply_to_launch_request(nullptr, nullptr, 0)));
     }},

    {"app_control_get_operation() gives a new text each time, or null",
     "It would read an operation that is gone, or do nothing.",
     [] {
         run_request("app_control", [](app_control_handle request) {
             char *one = nullptr;
             char *other = nullptr;
             expect(CALL(app_control_get_operation(request, &one)), 0);
             expect(CALL(app_control_get_operation(request, &other)), 0);
             expect_error(CALL(app_control_get_operation(request, nullptr)));
             if (one != nullptr && other != nullptr) {
                 expect(one == other, false, "the same text: ");
                 expect(one, std::string(other));
             } else {
                 expect(one == other, true, "null both times: ");
             }
             free(one);
             free(other);
         });
     }},

    {"app_control_reply_to_launch_request() answers a request", "Its client would wait for an answer.",
     [] {
         run_request("app_control", [](app_control_handle request) {
             app_control_handle reply = nullptr;
             expect(CALL(app_control_create(&reply)), 0);
             expect_error(CALL(app_control_reply_to_launch_request(nullptr, request, 0)));
             expect_error(CALL(app_control_reply_to_launch_request(reply, nullptr, 0)));
             expect(CALL(app_control_reply_to_launch_request(reply, request, 0)), 0);
             expect(CALL(app_control_destroy(reply)), 0);
         });
     }},
};

extern const Library APP_CONTROL = {"capi-appfw-app-control", APP_CONTROL_CHECKS};

// The log.

static void expect_printed(int result)
{
    if (result < 0)
        fail("no negative value", show(result));
}

static constexpr Check DLOG_CHECKS[] = {
    {"__dlog_print() prints at each priority", "It would fail without a word in the log.",
     [] {
         for (const int priority : {DLOG_PRIORITY_INFO, DLOG_PRIORITY_ERROR})
             expect_printed(
                 CALL(__dlog_print(DLOG_BUFFER_APPS, priority, "IME_BACKUP", "ime-backup-check: %d", 1)));
     }},

    {"__dlog_print() prints long and odd texts", "It would crash on what a backup holds.",
     [] {
         for (const std::string &text : {std::string(), std::string("%s %n"), std::string("\xff\n\r\033[0m"),
                                         std::string(100'000, 'x'), std::string(100'000, '%')})
             expect_printed(
                 CALL(__dlog_print(DLOG_BUFFER_APPS, DLOG_PRIORITY_INFO, "IME_BACKUP", "%s", text.c_str())));
     }},
};

extern const Library DLOG = {"dlog", DLOG_CHECKS};
