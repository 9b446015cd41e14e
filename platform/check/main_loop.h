/** @file
 * Runs of the platform's main loop, as the service would see them.
 */
#pragma once

#include <functional>
#include <string>

#include "app_control.h"

/// What came of a run, in order, with a space before each event.
struct Events {
    std::string application; ///< of the life of the application
    std::string exchange;    ///< of the cloud library
};

struct Run {
    std::function<bool()> create = [] { return true; };
    std::function<void(app_control_handle request)> control = [](app_control_handle) {};
    /// Part of the event that ends the run.
    std::string last;
};

/// Runs service_app_main() in a process of its own until a little after the last event, or until nothing
/// happens any more. A process that dies ends the check.
Events run_main_loop(const Run &run);

/// Notes an event of the exchange, with where it comes: it must be on the thread of service_app_main(), and
/// not within a call of the library's own functions.
void note_event(const std::string &event);

/// Set within such a call.
extern bool is_calling;
