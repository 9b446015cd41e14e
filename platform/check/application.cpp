// The application framework, the requests that it delivers, and the log.

#include <atomic>
#include <cstdlib>
#include <mutex>

#include <sys/wait.h>
#include <unistd.h>

#include "appcore_agent.h"
#include "check.h"
#include "dlog.h"
#include "main_loop.h"
#include "report.h"

// The main loop.

static constexpr useconds_t POLL_MICROSECONDS = 1000;
static constexpr int MAX_IDLE_POLLS = 2000;
static constexpr int MAX_IDLE_POLLS_IN_EXCHANGE = 6000; ///< longer, since the exchange may wait for a network
static constexpr int POLLS_AFTER_LAST_EVENT = 50;

/// The events of a run, shared with the process that waits for them.
struct SharedEvents {
    std::atomic<unsigned> count;
    char application[Report::SIZE];
    char exchange[Report::SIZE];
};

static auto &shared_events = *make_shared_memory<SharedEvents>();
static pid_t main_thread = 0;
bool is_in_library_call = false;

static void add_event(char (&events)[Report::SIZE], const std::string &event)
{
    static std::mutex mutex; // a faulty platform may call on two threads
    const std::lock_guard lock(mutex);
    const size_t length = std::string(events).size();
    snprintf(events + length, sizeof events - length, " %s%s%s", event.c_str(),
             gettid() == main_thread ? "" : "[on another thread]",
             is_in_library_call ? "[within a call]" : "");
    shared_events.count++;
}

void note_event(const std::string &event)
{
    add_event(shared_events.exchange, event);
}

static int run_application(const TestApplication &application)
{
    service_app_callbacks callbacks = {};
    callbacks.create = [](void *data) {
        add_event(shared_events.application, "create");
        return static_cast<const TestApplication *>(data)->create();
    };
    callbacks.terminate = [](void *) { add_event(shared_events.application, "terminate"); };
    callbacks.app_control = [](app_control_handle request, void *data) {
        add_event(shared_events.application, "app_control");
        run_to_end([&] { static_cast<const TestApplication *>(data)->app_control(request); });
    };
    char name[] = "ime-backup-check";
    char *arguments[] = {name, nullptr};
    return CALL(service_app_main(1, arguments, &callbacks, const_cast<TestApplication *>(&application)));
}

Events run_main_loop(const TestApplication &application)
{
    shared_events.count = 0;
    *shared_events.application = *shared_events.exchange = '\0';
    const pid_t child = start_process([&] {
        main_thread = gettid();
        const int result = run_application(application);
        add_event(shared_events.application, result == 0 ? "returned(0)" : "returned(not 0)");
    });
    unsigned count = 0;
    int status = 0;
    for (int polls = 0; waitpid(child, &status, WNOHANG) == 0; polls++) {
        if (const unsigned now = shared_events.count; now != count) {
            count = now;
            polls = 0;
        }
        const bool is_over =
            (std::string(shared_events.application) + shared_events.exchange).find(application.last_event) !=
            std::string::npos;
        const int max_polls = is_over                           ? POLLS_AFTER_LAST_EVENT
                              : *shared_events.exchange == '\0' ? MAX_IDLE_POLLS
                                                                : MAX_IDLE_POLLS_IN_EXCHANGE;
        if (polls == max_polls) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            end_if_reported();
            return {shared_events.application, shared_events.exchange};
        }
        usleep(POLL_MICROSECONDS);
    }
    end_if_process_failed(status);
    return {shared_events.application, shared_events.exchange};
}

/// Runs the main loop for one request, until the last event.
static Events run_request(const char *last_event, const std::function<void(app_control_handle)> &app_control)
{
    const Events events = run_main_loop({.app_control = app_control, .last_event = last_event});
    if (events.application == " create")
        skip("no request reaches a program that is started by hand");
    return events;
}

static constexpr Check APPCORE_AGENT_CHECKS[] = {
    {"service_app_main() calls create, app_control and terminate once each, on its own thread",
     "The service would serve a request twice or never, or two requests at once.",
     [] {
         const Events events = run_request("returned", [](app_control_handle request) {
             app_control_handle reply = nullptr;
             app_control_create(&reply);
             if (app_control_reply_to_launch_request(reply, request, 0) != 0)
                 skip("the request can't be answered");
             app_control_destroy(reply);
             service_app_exit();
         });
         note_call("service_app_main(), with service_app_exit() in app_control");
         expect(events.application, " create app_control terminate returned(0)");
     }},

    {"service_app_main() does not return 0 when create returns false",
     "The client would treat a service that could not start as a service that did its work.",
     [] {
         const Events events = run_main_loop({.create = [] { return false; }, .last_event = "returned"});
         note_call("service_app_main(), with create returning false");
         expect(events.application, " create returned(not 0)");
     }},
};

extern const Library APPCORE_AGENT = {"appcore-agent", APPCORE_AGENT_CHECKS};

// Requests.

static constexpr Check APP_CONTROL_CHECKS[] = {
    {"app_control_create() makes a new handle each time, and app_control_destroy() releases it",
     "The service would answer no request, and the client would wait.",
     [] {
         app_control_handle one = nullptr;
         app_control_handle other = nullptr;
         expect(CALL(app_control_create(&one)), 0);
         expect(CALL(app_control_create(&other)), 0);
         expect(one != nullptr && other != nullptr && one != other, true, "two handles: ");
         expect(CALL(app_control_destroy(one)), 0);
         expect(CALL(app_control_destroy(other)), 0);
     }},

    {"null is refused, and outputs stay untouched", "The service would go on without a request.",
     [] {
         char text[] = "";
         char *operation = text;
         expect_error(CALL(app_control_get_operation(nullptr, &operation)));
         expect(operation == text, true, "the output is untouched: ");
         expect_error(CALL(app_control_create(nullptr)));
         expect_error(CALL(app_control_destroy(nullptr)));
         expect_error(CALL(app_control_reply_to_launch_request(nullptr, nullptr, 0)));
     }},

    {"app_control_get_operation() returns a new text each time, or null",
     "The service would read an operation that is already freed, or do nothing.",
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

    {"app_control_reply_to_launch_request() answers a request", "The client would wait for an answer.",
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
    {"__dlog_print() prints at each priority", "The service would fail without a log message.",
     [] {
         for (const int priority : {DLOG_PRIORITY_INFO, DLOG_PRIORITY_ERROR})
             expect_printed(
                 CALL(__dlog_print(DLOG_BUFFER_APPS, priority, "IME_BACKUP", "ime-backup-check: %d", 1)));
     }},

    {"__dlog_print() prints long and unusual texts", "The service would crash on a text in a backup.",
     [] {
         for (const std::string &text : {std::string(), std::string("%s %n"), std::string("\xff\n\r\033[0m"),
                                         std::string(100'000, 'x'), std::string(100'000, '%')})
             expect_printed(
                 CALL(__dlog_print(DLOG_BUFFER_APPS, DLOG_PRIORITY_INFO, "IME_BACKUP", "%s", text.c_str())));
     }},
};

extern const Library DLOG = {"dlog", DLOG_CHECKS};
