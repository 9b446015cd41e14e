/** @file
 * Application control (libcapi-appfw-app-control): the requests that applications send each other.
 *
 * A null handle or out-parameter is refused with an error code. Which codes there are is the platform's own
 * matter.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** A request that an application received, or the reply that it makes to one. */
typedef struct app_control *app_control_handle;

/**
 * Tells the operation that a request asks for.
 *
 * @param[out] operation  the operation's URI, a new text to be released with free(), or null when the
 *                        request names none; untouched on failure
 * @return 0, or an error code
 */
int app_control_get_operation(app_control_handle request, char **operation);

/**
 * Makes an empty handle, for a reply.
 *
 * @param[out] handle  to be released with app_control_destroy(); untouched on failure
 * @return 0, or an error code
 */
int app_control_create(app_control_handle *handle);

/**
 * Answers the application that sent a request. A request is answered once; one that never is has failed.
 *
 * @param reply    the reply to send
 * @param request  the request that is answered
 * @param result   0 for success; becomes the exit status of a launcher that waits for the answer
 * @return 0, or an error code
 */
int app_control_reply_to_launch_request(app_control_handle reply, app_control_handle request, int result);

/**
 * Releases a handle made by app_control_create(). A request belongs to the application framework.
 *
 * @return 0, or an error code
 */
int app_control_destroy(app_control_handle handle);

#ifdef __cplusplus
}
#endif
