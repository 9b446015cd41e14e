/** @file
 * Application control (libcapi-appfw-app-control): the requests that applications send each other.
 *
 * A null handle or out-parameter is refused with an error code. Each platform defines its own codes.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** A request that an application received, or its reply to a request. */
typedef struct app_control *app_control_handle;

/**
 * Gets the operation that a request asks for.
 *
 * @param[out] operation  the operation's URI, a new text that the caller releases with free(), or null when
 *                        the request names no operation; untouched on failure
 * @return 0, or an error code
 */
int app_control_get_operation(app_control_handle request, char **operation);

/**
 * Creates an empty handle, for a reply.
 *
 * @param[out] handle  the new handle, which the caller releases with app_control_destroy(); untouched on
 *                     failure
 * @return 0, or an error code
 */
int app_control_create(app_control_handle *handle);

/**
 * Answers the application that sent a request. Each request is answered once. A request that is never
 * answered has failed.
 *
 * @param reply    the reply to send
 * @param request  the request to answer
 * @param result   0 for success; becomes the exit status of a launcher that waits for the answer
 * @return 0, or an error code
 */
int app_control_reply_to_launch_request(app_control_handle reply, app_control_handle request, int result);

/**
 * Releases a handle that app_control_create() made. A request belongs to the application framework.
 *
 * @return 0, or an error code
 */
int app_control_destroy(app_control_handle handle);

#ifdef __cplusplus
}
#endif
