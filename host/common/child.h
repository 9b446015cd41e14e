#pragma once

#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <glib.h>

using Environment = std::map<std::string, std::string>;

/// The environment variables of this process.
Environment current_environment();

/// A program to run in a child process.
struct Child {
    std::string program; ///< a path, or a name to search for in $PATH
    std::vector<std::string> arguments{};
    Environment environment = current_environment();
    std::map<int, int> files{}; ///< the child's file descriptors; each duplicates one of this process
    int output = -1;            ///< the child's descriptor of a pipe; its text goes to on_output
    std::function<void(std::string_view)> on_output{};
    std::optional<gint64> time_limit_us{};
    /// Sent to the child when its time is over, or when this process gets a termination signal or is killed.
    int end_signal = SIGTERM;
    /// Handles termination signals after the child's end; default: the handler from before run_child().
    void (*on_late_signal)(int) = nullptr;
};

/// Why run_child() ended a child.
enum class StopReason { none, interrupted, timed_out };

struct ChildResult {
    int error = 0;   ///< errno if the child could not be started
    int status = -1; ///< as returned by waitpid()
    StopReason stopped = StopReason::none;
};

/// Runs a program and waits until it ends. Sends it Child::end_signal when its time is over or this process
/// gets a termination signal, and kills it at a second signal or two seconds after its time. Afterwards, a
/// signal that came meanwhile also goes to this process's own handler.
ChildResult run_child(Child child);
