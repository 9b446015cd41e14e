/** @file
 * How a check ended, for the process that prints it.
 */
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

struct Report {
    static constexpr size_t SIZE = 500;

    enum class Verdict { none, failed, skipped } verdict;
    char call[SIZE]; ///< the last one
    char expected[SIZE];
    char got[SIZE]; ///< or why the check is skipped
};

/// Of the check that runs, in memory that all its processes share.
extern Report *const report;

void report_failure(const std::string &expected, const std::string &got);

/// Reports a process that start_apart() started and that did not come to its end.
void report_end(int status);

/// Runs what may end the check.
///
/// @return whether it came to its end
bool run_to_end(const std::function<void()> &work);

/// Starts a process that runs a function. It dies with the process that started it.
pid_t start_apart(const std::function<void()> &work);

/// Ends the check here if it ended in another process.
void end_if_reported();

/// The same, or if the other process, which has ended with this status, did not come to its end.
void end_as(int status);
