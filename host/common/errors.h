#pragma once

#include <stdexcept>

/// Something that the host can't do; the message is for the person at the workstation, on one line.
struct HostError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The platform isn't there: its state or its daemon can't be used at all.
struct PlatformError : HostError {
    using HostError::HostError;
};

/// A file that can't be read; perhaps only now, or only by this user.
struct UnreadableError : PlatformError {
    using PlatformError::PlatformError;
};

/// The SCIM daemon isn't running, doesn't answer or refuses to do something.
struct DaemonError : PlatformError {
    using PlatformError::PlatformError;
};

/// No input method is active, or none that can be backed up.
struct KeyboardError : PlatformError {
    using PlatformError::PlatformError;
};

/// A value that can't be used for what it was meant for.
struct ValueError : HostError {
    using HostError::HostError;
};

/// Something did not come to its end in the time that it had.
struct TimeoutError : HostError {
    using HostError::HostError;
};

/// The process was asked to end in the middle of something. It is no HostError: nothing goes on after it.
struct InterruptedError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
