/** @file
 * The service-application framework (libappcore-agent): the main loop of an application without windows. It
 * starts the process for the first request, and hands those that come while it runs to the same process.
 *
 * The loop may be of any kind; the service needs no GLib main loop. The cloud library's callbacks come from
 * the same loop: how the two libraries arrange that is their own matter.
 */
#pragma once

#include <stdbool.h>

#include "app_control.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The life of a service application. All are called on the thread that runs service_app_main(). */
typedef struct service_app_callbacks {
    /** Called once, before any request; false ends the application. */
    bool (*create)(void *user_data);
    /** Called once, after the last request, if create returned true. */
    void (*terminate)(void *user_data);
    /** Called for each request. The request is valid until the callback returns. */
    void (*app_control)(app_control_handle request, void *user_data);
} service_app_callbacks;

/**
 * Runs the application until service_app_exit() is called.
 *
 * @param argc,argv  as main() received them: how they tell the first request is the framework's own matter
 * @param callbacks  must outlive the call
 * @param user_data  handed to each callback
 * @return the process's exit status; not 0 when create returned false
 */
int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data);

/** Ends the main loop once the current callback, its own or the cloud library's, has returned. */
void service_app_exit(void);

#ifdef __cplusplus
}
#endif
