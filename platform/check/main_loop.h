/** @file
 * Runs of the platform's main loop, as the service would see them.
 */
#pragma once

#include <functional>
#include <string>

#include "app_control.h"

/// The events of a run, in order, each with a space before it.
struct Events {
    std::string application; ///< of the life of the application
    std::string exchange;    ///< of the cloud library
};

struct Run {
    std::function<bool()> create = [] { return true; };
    std::function<void(app_control_handle request)> control = [](app_control_handle) {};
    /// Part of the name of the event that ends the run.
    std::string last;
};

/// Runs service_app_main() in a process of its own until shortly after the last event, or until no event
/// comes any more. If the process dies, the check ends.
Events run_main_loop(const Run &run);

/// Notes an event of the exchange, and whether it comes on another thread than that of service_app_main(), or
/// within a call of the library's own functions.
void note_event(const std::string &event);

/// Set within such a call.
extern bool is_calling;
