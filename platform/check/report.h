/** @file
 * The result of a check, for the process that prints the results.
 */
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

struct Report {
    static constexpr size_t SIZE = 500;

    enum class Verdict { none, failed, skipped } verdict;
    char call[SIZE]; ///< the last call that the check made
    char expected[SIZE];
    char got[SIZE]; ///< or the reason why the check is skipped
};

/// The report of the running check, in memory that all its processes share.
extern Report *const report;

void report_failure(const std::string &expected, const std::string &got);

/// Reports a failure if this wait status shows that a process from start_process() did not finish its
/// function.
void report_exit_status(int status);

/// Runs a function that may end the check.
///
/// @return true if the function returned, false if it ended the check
bool run_to_end(const std::function<void()> &work);

/// Starts a child process that runs a function. The child is killed when its parent dies.
pid_t start_process(const std::function<void()> &work);

/// Ends the check in this process if the check has ended in another process.
void end_if_reported();

/// The same, and also if this wait status shows that the other process did not finish its function.
void end_if_process_failed(int status);
