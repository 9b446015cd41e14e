#pragma once

#include <filesystem>
#include <string>

#include "record_file.h"

/// How an exchange went, for the cloud backup client that started it.
struct ExchangeReport {
    std::string operation; ///< "backup", "restore" or "info"
    bool succeeded = false;
    std::string reason;   ///< of a failure, for a person
    guint64 backup = 0;   ///< number of the backup that was made or restored, if there is one
    CloudRecords records; ///< without their values
};

/// Names the file that the report of an exchange goes to, else it goes to #LAST_REPORT below the state root.
inline constexpr char REPORT_VARIABLE[] = "IME_BACKUP_EXCHANGE_REPORT";

inline constexpr char LAST_REPORT[] = "last-exchange.json";

/// Below the state root: exchanges share their files, so one process at a time holds this lock.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";

/// Names the backup that a restore takes, else it takes the newest.
inline constexpr char RESTORE_VARIABLE[] = "IME_BACKUP_RESTORE";

/// @throws HostError when it can't be written
void write_report(const ExchangeReport &report);

/// @throws HostError when there is none or it can't be read
ExchangeReport read_report(const std::filesystem::path &file);
