#pragma once

#include <optional>
#include <string>

#include "account.h"
#include "cloud_store.h"
#include "plan.h"

/// SettingReport::why of a setting that was not read again after the restore.
inline constexpr char NOT_CHECKED[] = "not checked";

/// The result of a restore for one setting.
struct SettingReport {
    std::string member; ///< SettingRow::member
    DeviceValue before;
    SnapshotValue wanted; ///< from the last record that was applied
    DeviceValue after;
    std::string why; ///< why `after` is not `wanted`, or may not be; else empty
};

/// The result of an exchange, for the cloud backup client that started it.
struct ExchangeReport {
    enum class Result {
        undecided, ///< the exchange was interrupted, or still runs
        succeeded,
        failed,
        no_platform, ///< PlatformError
        no_daemon,   ///< DaemonError
        no_keyboard, ///< KeyboardError
        no_backup,   ///< NoBackupError
        damaged,     ///< DamagedError
        timed_out,   ///< TimeoutError
        interrupted, ///< InterruptedError; set only by the client
    };

    std::string operation; ///< "backup", "restore" or "info"
    Result result = Result::undecided;
    std::string reason;                  ///< of a failure, or the limits of a success; for people
    BackupNumber backup = 0;             ///< the backup that was made or restored; 0 if there is none
    bool storing = false;                ///< the exchange has begun to store a backup
    bool stored = false;                 ///< the backup is stored
    CloudRecords records;                ///< without values
    std::vector<SettingReport> settings; ///< of a restore
    std::vector<Change> changes;
};

/// Returns the report of a restore that goes as planned.
ExchangeReport report_planned(const RestorePlan &plan, BackupNumber number, const CloudRecords &records);

/// Throws the exception that the exchange failed with. Does nothing for a success.
void throw_failure(const ExchangeReport &report);

/// Throws the error for an obstacle to a backup.
[[noreturn]] void throw_obstacle(const Obstacle &obstacle);

/// Reads a backup.
///
/// @throws DamagedError and UnreadableError with the number of the backup in the message
Backup read_for_restore(const CloudStore &store, BackupNumber number);

/// Returns the value of #REPORT_VARIABLE for a file that the new process gets under this descriptor. The
/// value also identifies the file, since the descriptor alone could be that of a file which the process
/// opened itself.
std::string name_report_file(int file, int number_in_process);

/// Returns the descriptor in #REPORT_VARIABLE; nothing if this process did not get such a file.
std::optional<int> find_report_file();

/// Returns a report as one line of JSON.
std::string encode_report(const ExchangeReport &report);

/// Returns a change, with its number in the account, as one line of JSON. Such lines precede the report.
std::string encode_change(size_t number, const Change &change);

/// Reads the content of a report file: its last report or, if there is none yet, a report with the changes
/// alone.
///
/// @throws HostError when the content is not a report
ExchangeReport decode_report(const std::string &text);
