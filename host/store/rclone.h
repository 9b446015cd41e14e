#pragma once

#include <optional>
#include <string>
#include <vector>

#include <glib.h>

/// Runs the program rclone, which reaches remote stores of many kinds.
class Rclone
{
public:
    /// @param timeout_seconds that all runs together may take, or nothing
    explicit Rclone(std::optional<double> timeout_seconds);

    /// Exit statuses that tell more than that it failed.
    static constexpr int NO_SUCH_FOLDER = 3;
    static constexpr int NO_SUCH_FILE = 4;

    struct Result {
        int status;         ///< exit status, or -1 after a signal
        std::string output; ///< of its standard output
        std::string reason; ///< of a failure, for a person
    };

    /// Runs a subcommand to its end. While it runs, the main loop of this process stands still; SIGINT and
    /// SIGTERM end it nevertheless.
    ///
    /// @param input its standard input
    /// @throws PlatformError when rclone isn't installed
    /// @throws TimeoutError
    /// @throws InterruptedError after a signal, of which the main loop learns, too
    Result run(const std::vector<std::string> &arguments, const std::string &input = "") const;

    /// Lets some time pass, as far as there is some left.
    void pause(gint64 microseconds) const;

private:
    static constexpr double MAX_PATIENCE = 10;

    void spend(gint64 microseconds) const;

    mutable std::optional<gint64> left; ///< microseconds of the time for it
    double patience = MAX_PATIENCE;     ///< seconds after which a silent server has failed
};
