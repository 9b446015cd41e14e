#pragma once

#include <optional>
#include <string>

#include "files.h"
#include "report.h"
#include "status.h"

/// How to show the service's calls to the platform, on standard output.
struct TraceOptions {
    std::string library;  ///< that is preloaded
    std::string failures; ///< the calls that are to fail, as the library has them
    bool as_json = false;
    bool is_hidden = false;
};

/// How to run the backup service.
struct ServiceOptions {
    std::string program;
    double timeout_seconds = 30;
    bool verbose = false;
    std::optional<TraceOptions> trace{};
};

/// Starts the service for one exchange and waits for both to end.
///
/// @param[out] log_tail  the end of its log, when the service came to no result
/// @param operation  such as #OPERATION_BACKUP
/// @param backup     number of the one to restore, or empty for the newest
/// @throws HostError when the service can't be started
ExchangeReport run_exchange(const ServiceOptions &options, std::string &log_tail, const char *operation,
                            const std::string &backup = "");

/// Waits until no exchange is under way.
///
/// @param is_only_looking when there has been none, no lock is made
/// @return the lock: none begins while it is held
/// @throws TimeoutError
FileLock wait_for_turn(double timeout_seconds, bool is_only_looking);

// What was installed beside this program.

std::string find_beside(const char *path_from_bindir);
std::string default_service_program();
std::string default_trace_library();
