#pragma once

#include "state.h"

/// Exit statuses.
inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_NO_PLATFORM = 3;

/// What was asked for makes no sense.
struct UsageError : HostError {
    using HostError::HostError;
};

/// The platform that the keyboard's settings live on isn't there.
struct PlatformError : HostError {
    using HostError::HostError;
};
