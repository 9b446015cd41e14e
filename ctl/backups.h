#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cloud_store.h"
#include "document.h"
#include "history.h"

/// "backup 4", for a person.
std::string name_of(BackupNumber number);

/// Such as "restore of backup 4", for a person.
std::string describe(const HistoryEntry &entry);

/// Milliseconds since 1970 in a record's date.
std::optional<std::int64_t> parse_date(const std::string &date);

/// The local time of a record's date, or the text as it stands when it is no date.
std::string format_date(const std::string &date);

/// The time as scripts have it, or null when it is no date.
Json utc_time(const std::string &date);

/// The date of a backup's first record.
std::string date_of(const CloudRecords &records);

/// Reads a backup of which each record holds a snapshot.
///
/// @throws DamagedError and UnreadableError, which name the backup
Backup read_whole(const CloudStore &store, BackupNumber number);

/// Backups, read and checked.
struct Inspection {
    Table table;
    size_t damaged = 0;
    size_t unreadable = 0;
};

Inspection inspect(const CloudStore &store, const std::vector<BackupNumber> &numbers);
