/** @file
 * How libime-backup-trace is told what to do: by the variables of the process that it is loaded into.
 */
#pragma once

/// Where the trace goes: the number of an open file, or a file's name. Else to standard error.
inline constexpr char TRACE_VARIABLE[] = "IME_BACKUP_TRACE";

/// When it is "json", each line is a JSON object.
inline constexpr char TRACE_FORMAT_VARIABLE[] = "IME_BACKUP_TRACE_FORMAT";

/// The calls that are to fail, with spaces between them: FUNCTION[#N][=CODE]. The N-th call of that function,
/// else the first, is not made, and yields the code, else -1; where a function yields none, it yields null or
/// false.
inline constexpr char TRACE_FAIL_VARIABLE[] = "IME_BACKUP_TRACE_FAIL";

/// The functions that can be made to fail.
inline constexpr const char *TRACED_FUNCTIONS[] = {
#define CALL(result, function, ...) #function,
#define REGISTRATION(function, ...) #function,
#define OWN_SHAPE(function) #function,
#include "boundary.def"
};
