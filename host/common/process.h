#pragma once

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

/// Prepares this process; each program of the host calls this first. Files that the process creates are
/// private to their owner. Standard streams that are closed are replaced, so that no other file gets their
/// numbers.
///
/// @throws PlatformError when the process can't open enough files
void prepare_process();

/// Sets the time limit of this process, in seconds from now. Default: no limit.
void limit_time(double seconds);

/// Returns the microseconds that are left, at least 0; nothing when there is no limit.
std::optional<std::int64_t> time_left();

/// Pauses for some milliseconds. For loops that wait for another process.
///
/// @param who the other process, for messages
/// @throws TimeoutError when the time limit is reached
/// @throws InterruptedError when a termination signal has come, which TerminationSignals::take() then reports
void wait_for_another(const std::string &who);

/// Catches SIGTERM, SIGINT and SIGHUP during its lifetime, except signals that are ignored. The destructor
/// restores the earlier handlers, and raises again a signal that was caught. It does not raise a signal that
/// take() has reported and that would end the process.
class TerminationSignals
{
public:
    /// @param later handles the signals after this object's lifetime; default: the earlier handler
    /// @throws PlatformError when no more files can be opened
    explicit TerminationSignals(void (*later)(int) = nullptr);
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals();

    /// A file descriptor, readable while a signal waits for take().
    static int file();

    /// True if a signal has come since the last call.
    bool take();

private:
    struct sigaction before[3] = {};
    bool was_reported = false; ///< take() has returned true
};
