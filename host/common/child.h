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

/// The variables of this process.
Environment current_environment();

/// A program that is to run in a process of its own.
struct Child {
    std::string program; ///< its path, or its name in one of the folders in $PATH
    std::vector<std::string> arguments{};
    Environment environment = current_environment();
    std::map<int, int> files{}; ///< numbers in the new process, and the open files here that they stand for
    int output = -1;            ///< the number there of a pipe, whose text goes to on_output
    std::function<void(std::string_view)> on_output{};
    std::optional<gint64> microseconds{}; ///< that it may take
    /// Asks it to end: when its time is over, this process is asked to end, or this process is killed.
    int end_signal = SIGTERM;
    /// Handles what TerminationSignals takes from its end on; else what did so before does.
    void (*on_late_signal)(int) = nullptr;
};

/// Why a process was asked to end.
enum class Stop { none, interrupted, timed_out };

struct ChildEnd {
    int error = 0;   ///< why it could not be started, as errno has it
    int status = -1; ///< as waitpid() has it
    Stop stopped = Stop::none;
};

/// Runs a program to its end. It is asked to end when its time is over, or when this process is; it is killed
/// at a second signal, or two seconds after its time. What handled the signals before gets one afterwards.
ChildEnd run_child(Child child);
