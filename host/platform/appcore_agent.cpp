// The service-application framework, on top of GApplication. Each launch with an operation is one request.

#include "appcore_agent.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include <gio/gio.h>
#include <glib-unix.h>

#include "errors.h"
#include "files.h"
#include "paths.h"
#include "process.h"
#include "request.h"
#include "shared_names.h"
#include "text.h"

static constexpr char APPLICATION_ID[] = "com.orvanta.ime-backup-service";

static constexpr char HELP[] = "Usage: ime-backup-service [OPERATION]\n"
                               "Takes part in a backup or a restore of the on-screen keyboard's settings.\n"
                               "OPERATION is a URI such as\n"
                               "http://orvanta.com/appcontrol/operation/orvanta_cloud/backup\n"
                               "(or .../restore, .../get_backup_info). If an instance already runs on the\n"
                               "session bus, it gets the operation. Without a known operation, the service\n"
                               "waits until SIGTERM. The cloud backup client starts the service: on a\n"
                               "workstation, ime-backupctl.\n";

/// The option with which the session bus starts the service, before it sends a request.
static constexpr char STARTED_BY_BUS[] = "--gapplication-service";
static constexpr guint MAX_WAIT_FOR_REQUEST_S = 5;

static constexpr int EXIT_USAGE = 2;
static constexpr guint END_RETRY_MS = 20;
static constexpr int END_RETRIES = 250;

/// A launch holds a shared lock on this file until its request is answered. An instance takes an exclusive
/// lock before it ends. So no request reaches an instance that ends.
static constexpr char LAUNCH_LOCK[] = "launch.lock";

namespace
{

/// One run of service_app_main().
struct ServiceApp {
    const service_app_callbacks &callbacks;
    void *user_data;
    /// The exit status: the answer to the request that started this process, or failure if there is none.
    int status = EXIT_FAILURE;
    bool created = false;
    bool ending = false;
    bool terminated = false;  ///< by a signal; later requests do not prevent the end
    bool has_request = false; ///< a request has come
    bool exit_called = false; ///< service_app_exit() was called
    std::optional<TerminationSignals> signals = std::nullopt;
    int end_retries = 0;
    std::optional<FileLock> launches = std::nullopt;
};

ServiceApp *current_app;

} // namespace

static gboolean on_termination(int, GIOCondition, void *)
{
    current_app->signals->take();
    current_app->terminated = true;
    service_app_exit();
    return G_SOURCE_CONTINUE;
}

static void on_startup(GApplication *application, ServiceApp *app)
{
    app->launches.reset();
    app->created = app->callbacks.create(app->user_data);
    if (app->created)
        g_application_hold(application);
    else
        g_application_quit(application);
}

/// Runs the service's callback for a request, and returns the answer.
static int serve(ServiceApp &app, const char *operation)
{
    app_control request;
    if (operation != nullptr)
        request.operation = operation;
    app.has_request = true;
    app.ending = app.terminated; // a new request cancels an end that is not due to a signal
    app.callbacks.app_control(&request, app.user_data);
    return request.result.value_or(EXIT_FAILURE);
}

static int on_command_line(GApplication *, GApplicationCommandLine *command_line, ServiceApp *app)
{
    if (!app->created)
        return EXIT_FAILURE;

    int argc = 0;
    g_auto(GStrv) argv = g_application_command_line_get_arguments(command_line, &argc);
    const int status = serve(*app, argc > 1 ? argv[1] : nullptr);
    if (g_application_command_line_get_is_remote(command_line) == FALSE)
        app->status = status;
    return status;
}

/// Serves requests that come as D-Bus activations to open URIs: each operation is a URI.
static void on_open(GApplication *, GFile **operations, gint count, const char *, ServiceApp *app)
{
    for (int i = 0; app->created && i < count; i++) {
        g_autofree char *operation = g_file_get_uri(operations[i]);
        serve(*app, operation);
    }
}

static gboolean on_no_request(void *)
{
    if (!current_app->has_request)
        service_app_exit();
    return G_SOURCE_REMOVE;
}

static void on_shutdown(GApplication *, ServiceApp *app)
{
    if (app->created)
        app->callbacks.terminate(app->user_data);
}

/// Takes the launch lock, exclusive or shared. Returns true also if the lock can't be used, so that a launch
/// goes on without it: the exchange then reports why the state root can't be used.
static bool lock_launches(bool (FileLock::*lock)())
{
    try {
        if (!current_app->launches)
            current_app->launches.emplace(state_root() / LAUNCH_LOCK);
        return (*current_app->launches.*lock)();
    } catch (const std::runtime_error &) { // also after a termination signal, or the time limit
        return true;
    }
}

/// Releases the application's name on the bus, and waits for the reply. Without this, a launch could still
/// reach this process after it has released the launch lock.
static void release_name(GDBusConnection *bus)
{
    GVariant *reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ReleaseName",
        g_variant_new("(s)", APPLICATION_ID), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    g_clear_pointer(&reply, g_variant_unref);
}

static int answer_option(const std::string &option)
{
    if (option == "--help" || option == "-h") {
        printf("%s", HELP);
    } else if (option == "--version") {
        printf("%s\n", IME_BACKUP_VERSION);
    } else {
        fprintf(stderr, "ime-backup-service: unknown option \"%s\"; see --help\n", escaped(option).c_str());
        return EXIT_USAGE;
    }
    return fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// True if there is a session bus, at $DBUS_SESSION_BUS_ADDRESS or in the user's runtime folder. Always false
/// for a client that waits for a report: on the bus, an instance with another environment could answer.
static bool has_session_bus()
{
    if (g_getenv(REPORT_VARIABLE) != nullptr)
        return false;
    if (const char *address = g_getenv("DBUS_SESSION_BUS_ADDRESS"); address != nullptr)
        return g_str_has_prefix(address, "disabled:") == FALSE;
    std::error_code ignored;
    return std::filesystem::is_socket(std::filesystem::path(g_get_user_runtime_dir()) / "bus", ignored);
}

/// Serves one request without a bus: no other process can reach this instance.
static int run_alone(ServiceApp &app, const char *operation)
{
    if (!app.callbacks.create(app.user_data))
        return EXIT_FAILURE;
    app.status = serve(app, operation);
    while (!app.exit_called)
        g_main_context_iteration(nullptr, TRUE);
    app.callbacks.terminate(app.user_data);
    return app.status;
}

static int run_on_bus(ServiceApp &app, int argc, char **argv, bool is_started_by_bus)
{
    int flags = G_APPLICATION_HANDLES_COMMAND_LINE | G_APPLICATION_HANDLES_OPEN;
    if (is_started_by_bus) {
        flags |= G_APPLICATION_IS_SERVICE;
        argc = 1;
        app.status = EXIT_SUCCESS;
    }
    g_autoptr(GApplication) application =
        g_application_new(APPLICATION_ID, static_cast<GApplicationFlags>(flags));
    g_signal_connect(application, "startup", G_CALLBACK(on_startup), &app);
    g_signal_connect(application, "command-line", G_CALLBACK(on_command_line), &app);
    g_signal_connect(application, "open", G_CALLBACK(on_open), &app);
    g_signal_connect(application, "shutdown", G_CALLBACK(on_shutdown), &app);

    lock_launches(&FileLock::share);
    g_autoptr(GError) error = nullptr;
    if (g_application_register(application, nullptr, &error) == FALSE) {
        fprintf(stderr, "ime-backup-service: %s\n", error->message);
        return EXIT_FAILURE;
    }
    if (is_started_by_bus) // the bus sends the request now
        g_timeout_add_seconds(MAX_WAIT_FOR_REQUEST_S, on_no_request, nullptr);
    const bool is_primary = g_application_get_is_remote(application) == FALSE; // no other instance runs
    if (!is_primary)
        app.signals.reset();

    g_autoptr(GDBusConnection) bus = nullptr;
    g_set_object(&bus, g_application_get_dbus_connection(application));
    const int status = g_application_run(application, argc, argv);

    if (is_primary && bus != nullptr)
        release_name(bus);
    return is_primary ? app.status : status;
}

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
try {
    prepare_process();
    signal(SIGPIPE, SIG_IGN); // a restore must go on when the reader of the log is gone
    const bool is_started_by_bus = argc == 2 && strcmp(argv[1], STARTED_BY_BUS) == 0;
    if (argc > 1 && argv[1][0] == '-' && !is_started_by_bus)
        return answer_option(argv[1]);

    ServiceApp app{*callbacks, user_data};
    current_app = &app;
    if (const char *seconds = g_getenv(TIMEOUT_VARIABLE); seconds != nullptr)
        limit_time(g_ascii_strtod(seconds, nullptr));
    app.signals.emplace(); // before the service gets its name on the bus
    g_unix_fd_add(TerminationSignals::file(), G_IO_IN, on_termination, nullptr);
    const int status = is_started_by_bus || has_session_bus() ? run_on_bus(app, argc, argv, is_started_by_bus)
                                                              : run_alone(app, argc > 1 ? argv[1] : nullptr);
    current_app = nullptr;
    return status;
} catch (const PlatformError &error) {
    fprintf(stderr, "ime-backup-service: %s\n", error.what());
    return EXIT_FAILURE;
}

static gboolean try_to_end(void *)
{
    if (current_app == nullptr || !current_app->ending)
        return G_SOURCE_REMOVE;
    if (current_app->end_retries++ < END_RETRIES && !lock_launches(&FileLock::try_acquire))
        return G_SOURCE_CONTINUE;
    g_application_quit(g_application_get_default());
    return G_SOURCE_REMOVE;
}

void service_app_exit(void)
{
    if (current_app == nullptr)
        return;
    current_app->exit_called = true;
    GApplication *application = g_application_get_default();
    if (application == nullptr) // started by run_alone()
        return;
    if (g_application_get_dbus_connection(application) == nullptr) {
        g_application_quit(application); // no other process can reach this instance
        return;
    }
    current_app->ending = true;
    current_app->end_retries = 0;
    if (try_to_end(nullptr) == G_SOURCE_CONTINUE)
        g_timeout_add(END_RETRY_MS, try_to_end, nullptr);
}
