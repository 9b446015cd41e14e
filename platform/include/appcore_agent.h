/** @file
 * The service-application framework (libappcore-agent): the main loop of an application without windows. The
 * framework starts the process for the first request. Requests that arrive while the process runs go to the
 * same process.
 *
 * The loop may be of any kind; the service needs no GLib main loop. The cloud library's callbacks are called
 * from the same loop; how the two libraries arrange this is up to them.
 */
#pragma once

#include <stdbool.h>

#include "app_control.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The lifecycle callbacks of a service application, all called on the thread that runs service_app_main().
 */
typedef struct service_app_callbacks {
    /** Called once, before any request. Returning false ends the application. */
    bool (*create)(void *user_data);
    /** Called once, after the last request, if create returned true. */
    void (*terminate)(void *user_data);
    /** Called for each request. The request is valid until the callback returns. */
    void (*app_control)(app_control_handle request, void *user_data);
} service_app_callbacks;

/**
 * Runs the application until service_app_exit() is called.
 *
 * @param argc,argv  as main() received them; the framework defines how they encode the first request
 * @param callbacks  must outlive the call
 * @param user_data  passed to each callback
 * @return the process's exit status; not 0 when create returned false
 */
int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data);

/** Ends the main loop after the current callback, the framework's or the cloud library's, has returned. */
void service_app_exit(void);

#ifdef __cplusplus
}
#endif
