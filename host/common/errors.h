#pragma once

#include <stdexcept>

/// A failure of the host. Its message is one line for people.
struct HostError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The platform can't be used: its state, its daemon or its store.
struct PlatformError : HostError {
    using HostError::HostError;
};

/// A file that can't be read, perhaps only at the moment or by this user.
struct UnreadableError : PlatformError {
    using PlatformError::PlatformError;
};

/// The SCIM daemon isn't running, doesn't answer or refuses to do something.
struct DaemonError : PlatformError {
    using PlatformError::PlatformError;
};

/// No input method is active, or the active one can't be backed up.
struct KeyboardError : PlatformError {
    using PlatformError::PlatformError;
};

/// An invalid value.
struct ValueError : HostError {
    using HostError::HostError;
};

/// The time limit was reached.
struct TimeoutError : HostError {
    using HostError::HostError;
};

/// The process got a termination signal. This is not a HostError, so that code which handles a HostError and
/// continues does not catch it.
struct InterruptedError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
