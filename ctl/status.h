#pragma once

#include "errors.h"

/// Exit statuses.
inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_NO_PLATFORM = 3;
inline constexpr int EXIT_NO_BACKUP = 4;
inline constexpr int EXIT_DAMAGED = 5;
inline constexpr int EXIT_TIMED_OUT = 124;
inline constexpr int EXIT_INTERRUPTED = 130;

/// What was asked for makes no sense.
struct UsageError : HostError {
    using HostError::HostError;
};

// Words that go below an error.

inline constexpr char HINT_SCIM[] =
    "A SCIM daemon is started with: " SCIM_LAUNCHER " -d -c simple -e none -f socket";
inline constexpr char HINT_KEYBOARD[] =
    "One is chosen with: ime-backupctl settings set default_keyboard IDENTIFIER";
inline constexpr char HINT_BACKUP[] =
    R"("ime-backupctl list" shows those there are, "ime-backupctl backup" makes one.)";
