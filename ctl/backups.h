#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "cloud_store.h"

/// "backup 4", for a person.
std::string name_of(BackupNumber number);

/// Milliseconds since 1970 in a record's date.
std::optional<std::int64_t> parse_date(const std::string &date);

/// The local time of a record's date, or the text as it stands when it is no date.
std::string format_date(const std::string &date);

/// The date of a backup's first record.
std::string date_of(const CloudRecords &records);

/// Reads a backup of which each record holds a snapshot.
///
/// @throws DamagedError which names the backup
Backup read_whole(const CloudStore &store, BackupNumber number);

/// Backups, read and checked.
struct Inspection {
    Table table{{{"id", "id"},
                 {"time", "time"},
                 {FOR_PEOPLE, "age"},
                 {"size", FOR_SCRIPTS},
                 {"usable", FOR_SCRIPTS},
                 {"default_keyboard", "keyboard"},
                 {"languages", "languages"},
                 {"reason", ""}},
                {}};
    size_t damaged = 0;
};

Inspection inspect(const CloudStore &store, const std::vector<BackupNumber> &numbers);

/// The newest backup that can be restored.
std::optional<BackupNumber> find_newest_good(const CloudStore &store,
                                             const std::vector<BackupNumber> &numbers);

/// All backups of a store. What isn't one though it is named so is told on standard error, and a store that
/// isn't there, too.
///
/// @throws PlatformError when the store's place was chosen and it isn't there
std::vector<BackupNumber> list_backups(const CloudStore &store);

/// @throws PlatformError when the place of the store isn't there
void require_store(const CloudStore &store);

/// The backups that a person named, each once.
///
/// @throws NoBackupError
std::vector<BackupNumber> find_backups(const CloudStore &store, const std::vector<BackupNumber> &known,
                                       const std::vector<std::string> &ids);

/// Deletes backups, and tells which were: also when not all that were chosen could be.
void delete_and_tell(Document &document, CloudStore &store, const CloudStore::Choose &choose);

/// Tells what was deleted and what was kept, or would be.
void tell_deleted(Document &document, const std::vector<BackupNumber> &deleted,
                  const std::vector<BackupNumber> &kept, const char *what_of_them);
