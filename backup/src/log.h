#pragma once

#include <glib.h>

#include "dlog.h"

/// Where a log line says that it comes from.
struct Location {
    const char *file;
    const char *function;
    int line;
};

#define HERE HERE_AS(__func__)
#define HERE_AS(caller) (Location{__FILE_NAME__, caller, __LINE__})

#define LOG_TAG "IME_BACKUP"

#define LOG_AT(location, priority, text, ...)                                                                \
    __dlog_print(DLOG_BUFFER_APPS, priority, LOG_TAG, "%s: %s(%d) > " text, (location).file,                 \
                 (location).function, (location).line __VA_OPT__(, ) __VA_ARGS__)

#define LOG_INFO_AT(location, body, ...)                                                                     \
    LOG_AT(location, DLOG_PRIORITY_INFO, "\033[0;35m* Info * " body "\033[0;m" __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR_AT(location, body, ...)                                                                    \
    LOG_AT(location, DLOG_PRIORITY_ERROR,                                                                    \
           "\033[0;31m* Critical * " body "\033[0;m" __VA_OPT__(, ) __VA_ARGS__)

#define LOG_INFO(...) LOG_INFO_AT(HERE, __VA_ARGS__)
#define LOG_ERROR(...) LOG_ERROR_AT(HERE, __VA_ARGS__)

/// The _AS forms are for helpers, which log under the name of the function that called them.
#define LOG_INFO_AS(caller, ...) LOG_INFO_AT(HERE_AS(caller), __VA_ARGS__)
#define LOG_ERROR_AS(caller, ...) LOG_ERROR_AT(HERE_AS(caller), __VA_ARGS__)

/// What a failed call of the cloud library or of application control is reported as.
#define FAILED_CALL(function, code_name) #function "() failed, " code_name " = [%d]\n"

#define LOGGED_CALL_AT(location, code_name, function, ...)                                                   \
    [](int call_code, const Location &call_location) {                                                       \
        if (call_code != 0)                                                                                  \
            LOG_ERROR_AT(call_location, FAILED_CALL(function, code_name), call_code);                        \
        return call_code;                                                                                    \
    }(function(__VA_ARGS__), location)

/// Calls a function of the cloud library and yields its code; a failure is logged and otherwise left to
/// the caller.
#define CLOUD_CALL(function, ...) CLOUD_CALL_AS(__func__, function __VA_OPT__(, ) __VA_ARGS__)
#define CLOUD_CALL_AS(caller, function, ...)                                                                 \
    LOGGED_CALL_AT(HERE_AS(caller), "error_code", function __VA_OPT__(, ) __VA_ARGS__)

/// The same for application control.
#define APP_CONTROL_CALL(function, ...) LOGGED_CALL_AT(HERE, "ret", function __VA_OPT__(, ) __VA_ARGS__)

/// The same, but the failure goes to standard output, bare.
#define PRINTED_CALL(code_name, function, ...)                                                               \
    [](int call_code) {                                                                                      \
        if (call_code != 0)                                                                                  \
            g_print(FAILED_CALL(function, code_name), call_code);                                            \
        return call_code;                                                                                    \
    }(function(__VA_ARGS__))
