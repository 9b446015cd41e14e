#pragma once

#include <glib.h>

#include "dlog.h"

/// A log line names the function that logs it. A helper that logs for its caller has a parameter `caller`,
/// and its log lines name that function instead. In all other functions, `caller` refers to this empty
/// function; the overloads below tell the two cases apart.
inline void caller() {}

constexpr const char *name_for_log(void (*)(), const char *own_name)
{
    return own_name;
}

constexpr const char *name_for_log(const char *callers_name, const char *)
{
    return callers_name;
}

#define NAME_FOR_LOG name_for_log(caller, __func__)

#define LOG_AS(name, priority, mark, body, ...)                                                              \
    __dlog_print(DLOG_BUFFER_APPS, priority, "IME_BACKUP", "%s: %s(%d) > " mark body "\033[0;m",             \
                 __FILE_NAME__, name, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR_AS(name, ...) LOG_AS(name, DLOG_PRIORITY_ERROR, "\033[0;31m* Critical * ", __VA_ARGS__)

#define LOG_INFO(...) LOG_AS(NAME_FOR_LOG, DLOG_PRIORITY_INFO, "\033[0;35m* Info * ", __VA_ARGS__)
#define LOG_ERROR(...) LOG_ERROR_AS(NAME_FOR_LOG, __VA_ARGS__)

#define FAILED_CALL(function, code_name) #function "() failed, " code_name " = [%d]\n"

#define LOGGED_CALL(code_name, function, ...)                                                                \
    [](int call_code, const char *call_name) {                                                               \
        if (call_code != 0)                                                                                  \
            LOG_ERROR_AS(call_name, FAILED_CALL(function, code_name), call_code);                            \
        return call_code;                                                                                    \
    }(function(__VA_ARGS__), NAME_FOR_LOG)

/// Calls a function of the cloud library, logs a failure, and returns the function's code.
#define CLOUD_CALL(function, ...) LOGGED_CALL("error_code", function __VA_OPT__(, ) __VA_ARGS__)

/// The same for a function of application control.
#define APP_CONTROL_CALL(function, ...) LOGGED_CALL("ret", function __VA_OPT__(, ) __VA_ARGS__)

/// The same for a function of either, but prints a failure to standard output, without the log's prefix.
#define PRINTED_CALL(code_name, function, ...)                                                               \
    [](int call_code) {                                                                                      \
        if (call_code != 0)                                                                                  \
            g_print(FAILED_CALL(function, code_name), call_code);                                            \
        return call_code;                                                                                    \
    }(function(__VA_ARGS__))
