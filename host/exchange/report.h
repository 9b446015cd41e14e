#pragma once

#include <optional>
#include <string>

#include "account.h"
#include "cloud_store.h"
#include "record_file.h"

/// What a restore came to for one setting.
struct SettingReport {
    std::string member; ///< of the snapshot, or the name of a list that decides what is restored
    DeviceValue before;
    DeviceValue after;
};

/// How an exchange went, for the cloud backup client that started it.
struct ExchangeReport {
    enum class Result {
        undecided, ///< it was interrupted, or is under way
        succeeded,
        failed,
        no_platform, ///< failed, since the device's platform isn't there
        no_backup,   ///< failed, since there is no such backup
        damaged      ///< failed, since the backup is damaged
    };

    std::string operation; ///< "backup", "restore" or "info"
    Result result = Result::undecided;
    std::string reason;      ///< of a failure, for a person
    BackupNumber backup = 0; ///< that was made or restored, or holds the same settings; 0 if there is none
    bool storing = false;    ///< whether it began to store a backup
    bool stored = false;     ///< whether it did
    CloudRecords records;    ///< without their values
    std::string snapshot;    ///< the last one that a backup took, or that a restore applied
    std::vector<SettingReport> settings; ///< of a restore
    std::vector<Change> changes;
    std::vector<Trouble> troubles;
};

/// What the device held under a list before the restore; an empty text when that was no list.
std::string list_before(const ExchangeReport &report, const SettingRow &row);

/// Names an open file that the report of an exchange goes to: the changes as they are made, then the whole.
inline constexpr char REPORT_VARIABLE[] = "IME_BACKUP_REPORT";

/// Below the state root: the report of the last exchange that was not a trial.
inline constexpr char LAST_REPORT[] = "last-exchange.json";

/// Below the state root: a report that a restore keeps as it goes, from when it begins to change the device.
/// It begins undecided, with the settings as they were.
inline constexpr char LAST_RESTORE[] = "last-restore.json";

/// Below the state root: exchanges share their files, so one process at a time holds this lock.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";

/// Names the backup that a restore takes, else it takes the newest.
inline constexpr char RESTORE_VARIABLE[] = "IME_BACKUP_RESTORE";

/// The variable's value for an open file that a new process has under this number. It tells the file, too: a
/// number alone could be that of a file which the process opened itself.
std::string name_report_file(int file, int number_in_process);

/// The number of the file that the variable names, if this process was given one.
std::optional<int> find_report_file();

/// When it is "1", exchanges are trials: they tell what they would do, and neither store nor change anything.
inline constexpr char TRIAL_VARIABLE[] = "IME_BACKUP_TRIAL";

/// When it is "1", a backup is stored only if the newest one does not hold the same settings.
inline constexpr char IF_CHANGED_VARIABLE[] = "IME_BACKUP_IF_CHANGED";

/// Whether a variable that asks for something is "1".
bool is_asked_for(const char *variable);

/// A report as one line of JSON.
std::string encode_report(const ExchangeReport &report);

/// One change, with its number in the account, as one line of JSON that goes ahead of the report.
std::string encode_change(size_t number, const Change &change);

/// Reads what was written to the report's file: the last report in it or, while there is none, the changes.
///
/// @throws HostError when it is no report
ExchangeReport decode_report(const std::string &text);
