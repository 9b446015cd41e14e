#pragma once

#include <string>

#include "report.h"
#include "status.h"

/// How to run the backup service.
struct ServiceOptions {
    std::string program;
    double timeout_seconds = 30;
    bool verbose = false;
};

/// What became of an exchange.
struct Outcome {
    ExchangeReport report;
    int status; ///< the exit status that follows from it
};

/// Starts the service for one exchange and waits for both to end. A failure is told on standard error.
///
/// @param operation  identifier of the exchange's operation
/// @param backup     number of the backup to restore, for a restore
/// @throws HostError when the service can't be started
Outcome run_exchange(const ServiceOptions &options, const char *operation, const std::string &backup = "");

/// The service that was installed beside this program.
std::string default_service_program();
