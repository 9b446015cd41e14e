#pragma once

#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

/// The first thing that a program of the host does. Nobody but its owner can read what it makes from then on,
/// and no file that it opens takes the place of a standard stream that it was started without.
///
/// @throws PlatformError when too few files can be opened
void prepare_process();

/// Sets how many seconds this process may take from now on. Without a limit, it waits as long as others take.
void limit_time(double seconds);

/// @return microseconds that are left, at least 0; nothing when there is no limit
std::optional<std::int64_t> time_left();

/// Waits a moment before another look at what another process holds.
///
/// @param who is late, for a person
/// @throws TimeoutError when the time is over
/// @throws InterruptedError when TerminationSignals has something to tell, which stays there to be taken
void wait_for_another(const std::string &who);

/// Takes SIGTERM, SIGINT and SIGHUP, which ask this process to end, while the object is there, except
/// those that are ignored. Then what handled them before does so again. It also gets one that came meanwhile,
/// but what take() has told of does not end the process.
class TerminationSignals
{
public:
    /// @param later handles the signals once the object is gone; else what did so before does
    /// @throws PlatformError when no more files can be opened
    explicit TerminationSignals(void (*later)(int) = nullptr);
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals();

    /// Can be read from while take() has something to tell.
    static int file();

    /// @return whether a signal has come since the last call
    bool take();

private:
    struct sigaction before[3] = {};
    bool has_told = false;
};
