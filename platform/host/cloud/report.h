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
        no_platform ///< failed, since the device's platform isn't there
    };

    std::string operation; ///< "backup", "restore" or "info"
    Result result = Result::undecided;
    std::string reason;                  ///< of a failure, for a person
    BackupNumber backup = 0;             ///< that was made or restored, if there is one
    CloudRecords records;                ///< without their values
    std::string snapshot;                ///< the last one that a restore applied
    std::vector<SettingReport> settings; ///< of a restore
    std::vector<Change> changes;
    std::vector<Trouble> troubles;
};

/// Names an open file that the report of an exchange goes to: the changes as they are made, then the whole.
/// Else the report goes to #LAST_REPORT below the state root.
inline constexpr char REPORT_VARIABLE[] = "IME_BACKUP_REPORT";

inline constexpr char LAST_REPORT[] = "last-exchange.json";

/// Below the state root: exchanges share their files, so one process at a time holds this lock.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";

/// Names the backup that a restore takes, else it takes the newest.
inline constexpr char RESTORE_VARIABLE[] = "IME_BACKUP_RESTORE";

/// The variable's value for an open file that a new process has under this number. It tells the file, too: a
/// number alone could be that of a file which the process opened itself.
std::string name_report_file(int file, int number_in_process);

/// The number of the file that the variable names, if this process was given one.
std::optional<int> find_report_file();

/// A report as one line of JSON.
std::string encode_report(const ExchangeReport &report);

/// One change, with its number in the account, as one line of JSON that goes ahead of the report.
std::string encode_change(size_t number, const Change &change);

/// Reads what was written to the report's file: the last report in it or, while there is none, the changes.
///
/// @throws HostError when it is no report
ExchangeReport decode_report(const std::string &text);
