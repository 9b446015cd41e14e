// The service-application framework on GApplication: each launch with an operation is one request.

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

static constexpr char HELP[] =
    "Usage: ime-backup-service [OPERATION]\n"
    "Takes part in a backup or a restore of the on-screen keyboard's settings.\n"
    "OPERATION is a URI such as\n"
    "http://orvanta.com/appcontrol/operation/orvanta_cloud/backup\n"
    "(or .../restore, .../get_backup_info). With a session bus, it goes to the\n"
    "instance that runs already. Without one that is known, the service waits until\n"
    "SIGTERM. The cloud backup client starts it: on a workstation, ime-backupctl.\n";

/// With it the session bus starts the service, for a request that is about to come.
static constexpr char STARTED_BY_BUS[] = "--gapplication-service";
static constexpr guint REQUEST_SECONDS = 5;

static constexpr int EXIT_USAGE = 2;
static constexpr guint END_RETRY_MS = 20;
static constexpr int END_RETRIES = 250;

/// Who launches the service shares it until its request is answered, and an instance that ends takes it for
/// itself: so no request reaches an instance that ends.
static constexpr char LAUNCH_LOCK[] = "launch.lock";

namespace
{

/// One run of service_app_main().
struct ServiceApp {
    const service_app_callbacks &callbacks;
    void *user_data;
    /// The answer to the launch that started this process; a launch that is never answered has failed.
    int status = EXIT_FAILURE;
    bool created = false;
    bool ending = false;
    bool terminated = false; ///< by a signal: it ends whatever comes
    bool asked = false;      ///< a request has come
    bool is_over = false;    ///< it was told to end
    std::optional<TerminationSignals> signals = std::nullopt;
    int end_retries = 0;
    std::optional<FileLock> launches = std::nullopt;
};

ServiceApp *running;

} // namespace

static gboolean on_termination(int, GIOCondition, void *)
{
    running->signals->take();
    running->terminated = true;
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

/// @return the answer
static int serve(ServiceApp &app, const char *operation)
{
    app_control request;
    if (operation != nullptr)
        request.operation = operation;
    app.asked = true;
    app.ending = app.terminated; // else a request that came in time is served
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

/// The bus's own way of asking: operations are URIs.
static void on_open(GApplication *, GFile **operations, gint count, const char *, ServiceApp *app)
{
    for (int i = 0; app->created && i < count; i++) {
        g_autofree char *operation = g_file_get_uri(operations[i]);
        serve(*app, operation);
    }
}

static gboolean on_no_request(void *)
{
    if (!running->asked)
        service_app_exit();
    return G_SOURCE_REMOVE;
}

static void on_shutdown(GApplication *, ServiceApp *app)
{
    if (app->created)
        app->callbacks.terminate(app->user_data);
}

/// Takes or shares the lock on launches. A launch does without it where it can't be had: the exchange tells
/// why.
static bool lock_launches(bool (FileLock::*lock)())
{
    try {
        if (!running->launches)
            running->launches.emplace(state_root() / LAUNCH_LOCK);
        return (*running->launches.*lock)();
    } catch (const std::runtime_error &) { // or the process is asked to end, or late
        return true;
    }
}

/// Waits until the bus has taken the application's name back. Else it could still lead a launch here once the
/// lock on launches is gone.
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
        fprintf(stderr, "ime-backup-service: there is no option %s; see --help\n", escaped(option).c_str());
        return EXIT_USAGE;
    }
    return fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// Whether there is a session bus: where its address says so, or where a user's stands. Who waits for a
/// report needs none: an instance that runs with other settings could answer in the new one's place.
static bool has_session_bus()
{
    if (g_getenv(REPORT_VARIABLE) != nullptr)
        return false;
    if (const char *address = g_getenv("DBUS_SESSION_BUS_ADDRESS"); address != nullptr)
        return g_str_has_prefix(address, "disabled:") == FALSE;
    std::error_code ignored;
    return std::filesystem::is_socket(std::filesystem::path(g_get_user_runtime_dir()) / "bus", ignored);
}

/// Serves the one request that it is started with. Nobody else can reach this instance.
static int run_alone(ServiceApp &app, const char *operation)
{
    if (!app.callbacks.create(app.user_data))
        return EXIT_FAILURE;
    app.status = serve(app, operation);
    while (!app.is_over)
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
    if (is_started_by_bus) // and has its name: the request is on its way
        g_timeout_add_seconds(REQUEST_SECONDS, on_no_request, nullptr);
    const bool is_primary = g_application_get_is_remote(application) == FALSE; // no other was running already
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
    signal(SIGPIPE, SIG_IGN); // when nobody reads the log any more, a restore still ends in order
    const bool is_started_by_bus = argc == 2 && strcmp(argv[1], STARTED_BY_BUS) == 0;
    if (argc > 1 && argv[1][0] == '-' && !is_started_by_bus)
        return answer_option(argv[1]);

    ServiceApp app{*callbacks, user_data};
    running = &app;
    if (const char *seconds = g_getenv(TIMEOUT_VARIABLE); seconds != nullptr)
        limit_time(g_ascii_strtod(seconds, nullptr));
    app.signals.emplace(); // before the name on the bus tells others that the service is there
    g_unix_fd_add(TerminationSignals::file(), G_IO_IN, on_termination, nullptr);
    const int status = is_started_by_bus || has_session_bus() ? run_on_bus(app, argc, argv, is_started_by_bus)
                                                              : run_alone(app, argc > 1 ? argv[1] : nullptr);
    running = nullptr;
    return status;
} catch (const PlatformError &error) {
    fprintf(stderr, "ime-backup-service: %s\n", error.what());
    return EXIT_FAILURE;
}

static gboolean try_to_end(void *)
{
    if (running == nullptr || !running->ending)
        return G_SOURCE_REMOVE;
    if (running->end_retries++ < END_RETRIES && !lock_launches(&FileLock::try_acquire))
        return G_SOURCE_CONTINUE;
    g_application_quit(g_application_get_default());
    return G_SOURCE_REMOVE;
}

void service_app_exit(void)
{
    if (running == nullptr)
        return;
    running->is_over = true;
    GApplication *application = g_application_get_default();
    if (application == nullptr) // it runs alone
        return;
    if (g_application_get_dbus_connection(application) == nullptr) {
        g_application_quit(application); // nobody else can reach this instance
        return;
    }
    running->ending = true;
    running->end_retries = 0;
    if (try_to_end(nullptr) == G_SOURCE_CONTINUE)
        g_timeout_add(END_RETRY_MS, try_to_end, nullptr);
}
