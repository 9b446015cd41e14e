#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cloud_store.h"
#include "document.h"
#include "history.h"

/// Returns "backup 4", for example.
std::string name_of(BackupNumber number);

/// Returns "restore of backup 4", for example.
std::string describe(const HistoryEntry &entry);

/// Reads a record's date, in milliseconds since 1970.
std::optional<std::int64_t> parse_date(const std::string &date);

/// Returns the local time of a record's date with its zone. Returns any other text unchanged.
std::string format_date(const std::string &date);

/// Returns the UTC time of a record's date in ISO 8601, or null if it is no date.
Json utc_time(const std::string &date);

/// Returns the date of the first record, or "".
std::string date_of(const CloudRecords &records);

/// Reads a backup, and checks that each record holds a snapshot.
///
/// @throws DamagedError and UnreadableError, which name the backup
Backup read_whole(const CloudStore &store, BackupNumber number);

/// The result of reading and checking backups.
struct Inspection {
    Table table;
    size_t damaged = 0;
    size_t unreadable = 0;
};

Inspection inspect(const CloudStore &store, const std::vector<BackupNumber> &numbers);
