/** @file
 * The environment variables that configure libime-backup-trace in the process that loads it.
 */
#pragma once

/// Where the trace goes: a file descriptor's number or a file name. Default: standard error.
inline constexpr char TRACE_VARIABLE[] = "IME_BACKUP_TRACE";

/// If "json", each line is a JSON object. Default: lines of text.
inline constexpr char TRACE_FORMAT_VARIABLE[] = "IME_BACKUP_TRACE_FORMAT";

/// The calls that are made to fail, separated by spaces: FUNCTION[#N][=CODE]. The N-th call of the function
/// is not made, and returns CODE instead, or null or false if the function does not return a code. N defaults
/// to 1, CODE to -1.
inline constexpr char TRACE_FAIL_VARIABLE[] = "IME_BACKUP_TRACE_FAIL";

/// The functions that can be made to fail.
inline constexpr const char *TRACED_FUNCTIONS[] = {
#define CALL(result, function, ...) #function,
#define REGISTRATION(function, ...) #function,
#define CUSTOM_WRAPPER(function) #function,
#include "boundary.def"
};
