#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "report.h"
#include "status.h"

/// How to show the service's calls to the platform.
struct TraceOptions {
    std::string library;  ///< that is preloaded
    std::string failures; ///< the calls that are to fail, as the library has them
    bool as_json = false;
    std::function<void(std::string_view)> on_output;
};

/// How to run the backup service.
struct ServiceOptions {
    std::string program;
    double timeout_seconds = 30;
    bool verbose = false;
    std::optional<TraceOptions> trace{};
};

/// What is asked of the service.
struct Request {
    const char *operation;
    std::string backup{};    ///< number of the one to restore, or empty for the newest
    bool is_trial = false;   ///< nothing is to be written
    bool if_changed = false; ///< a backup is stored only when the newest one holds other settings
};

/// What became of an exchange.
struct Outcome {
    ExchangeReport report;
    int status; ///< the exit status that follows from it
};

/// Starts the service for one exchange and waits for both to end. A failure is told on standard error.
///
/// @throws HostError when the service can't be started
Outcome run_exchange(const ServiceOptions &options, const Request &request);

/// What the service would back up.
///
/// @throws ToldError when it could not
std::string take_snapshot(const ServiceOptions &options);

// What was installed beside this program.

std::string find_beside(const char *path_from_bindir);
std::string default_service_program();
std::string default_trace_library();
