#pragma once

#include <string>

#include "files.h"
#include "report.h"

struct Cli;

/// Below the state root: what the service logs when it isn't shown.
inline constexpr char SERVICE_LOG[] = "service.log";

/// Starts the service for one exchange, as the command line has it, and waits for both to end.
///
/// @param[in,out] cli its log_tail becomes the end of the service's log, when that came to no result
/// @param operation   such as #OPERATION_BACKUP
/// @param backup      number of the one to restore, or empty for the newest
/// @throws HostError when the service can't be started
ExchangeReport run_exchange(Cli &cli, const char *operation, const std::string &backup = "");

/// What the last restore changed on this device, as it kept it while it went.
///
/// @return one without settings when there was no restore, or it was undone
/// @throws HostError when it can't be read
ExchangeReport read_last_restore();

/// Waits until no exchange is under way.
///
/// @param is_only_looking when there has been none, no lock is made
/// @return the lock: none begins while it is held
/// @throws TimeoutError
FileLock wait_for_turn(double timeout_seconds, bool is_only_looking);
