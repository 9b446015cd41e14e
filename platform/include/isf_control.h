/** @file
 * Control of the platform's input service framework: which input method (keyboard) is active.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Error code: no input method can have this identifier. */
#define ISF_CONTROL_INVALID_IDENTIFIER (-2)

/**
 * Gets the active input method.
 *
 * @param[out] identifier  its identifier, a new text that the caller releases with g_free(); malloc() may
 * have allocated it (see orvanta_cloud.h); untouched on failure
 * @return the identifier's length in bytes, or 0 or a negative value on failure
 */
int isf_control_get_active_ime(char **identifier);

/**
 * Makes an input method the active one.
 *
 * @param identifier  its identifier, as isf_control_get_active_ime() reports it
 * @return 0, #ISF_CONTROL_INVALID_IDENTIFIER, or another negative value on failure
 */
int isf_control_set_active_ime(const char *identifier);

#ifdef __cplusplus
}
#endif
