// The service-application framework on GApplication: each launch with an operation is one request.

#include "appcore_agent.h"

#include <csignal>
#include <cstdlib>

#include <gio/gio.h>
#include <glib-unix.h>

#include "request.h"

static constexpr char APPLICATION_ID[] = "com.orvanta.ime-backup-service";

/// One run of service_app_main().
struct ServiceApp {
    const service_app_callbacks &callbacks;
    void *user_data;
    /// The answer to the launch that started this process; a launch that is never answered has failed.
    int status = EXIT_FAILURE;
    /// This process runs the application, rather than one that was running already.
    bool primary = false;
    bool created = false;
};

static gboolean on_termination_signal(void *)
{
    service_app_exit();
    return G_SOURCE_CONTINUE;
}

static void on_startup(GApplication *application, ServiceApp *app)
{
    app->primary = true;
    g_unix_signal_add(SIGTERM, on_termination_signal, nullptr);
    g_unix_signal_add(SIGINT, on_termination_signal, nullptr);
    app->created = app->callbacks.create(app->user_data);
    if (app->created)
        g_application_hold(application);
    else
        g_application_quit(application);
}

static int on_command_line(GApplication *, GApplicationCommandLine *command_line, ServiceApp *app)
{
    if (!app->created)
        return EXIT_FAILURE;

    int argc = 0;
    g_auto(GStrv) argv = g_application_command_line_get_arguments(command_line, &argc);
    app_control request;
    if (argc > 1)
        request.operation = argv[1];
    app->callbacks.app_control(&request, app->user_data);

    const int status = request.result.value_or(EXIT_FAILURE);
    if (g_application_command_line_get_is_remote(command_line) == FALSE)
        app->status = status;
    return status;
}

static void on_shutdown(GApplication *, ServiceApp *app)
{
    if (app->created)
        app->callbacks.terminate(app->user_data);
}

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    ServiceApp app{*callbacks, user_data};
    g_autoptr(GApplication) application =
        g_application_new(APPLICATION_ID, G_APPLICATION_HANDLES_COMMAND_LINE);
    g_signal_connect(application, "startup", G_CALLBACK(on_startup), &app);
    g_signal_connect(application, "command-line", G_CALLBACK(on_command_line), &app);
    g_signal_connect(application, "shutdown", G_CALLBACK(on_shutdown), &app);

    const int status = g_application_run(application, argc, argv);

    return app.primary ? app.status : status;
}

void service_app_exit(void)
{
    if (GApplication *application = g_application_get_default(); application != nullptr)
        g_application_quit(application);
}
