/** @file
 * Runs the platform's main loop, and records the events that the service would see.
 */
#pragma once

#include <functional>
#include <string>

#include "app_control.h"

/// The events of a run, in order, each with a space before it.
struct Events {
    std::string application; ///< calls of the application's callbacks, and the return of service_app_main()
    std::string exchange;    ///< calls of the cloud library's callbacks
};

struct TestApplication {
    std::function<bool()> create = [] { return true; };
    std::function<void(app_control_handle request)> app_control = [](app_control_handle) {};
    /// The event that ends the run, or part of its name.
    std::string last_event;
};

/// Runs service_app_main() in a child process until shortly after the last event, or until no event has come
/// for some seconds. If the child dies, the check ends.
Events run_main_loop(const TestApplication &application);

/// Records an event of the exchange. Marks an event that comes on another thread than service_app_main()'s,
/// or during a call of the cloud library.
void note_event(const std::string &event);

/// True during a call of the cloud library, which must not call back before it returns.
extern bool is_in_library_call;
