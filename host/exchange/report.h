#pragma once

#include <optional>
#include <string>

#include "account.h"
#include "cloud_store.h"
#include "plan.h"

/// Why a setting is not known to be restored.
inline constexpr char NOT_CHECKED[] = "not checked";

/// What a restore came to for one setting.
struct SettingReport {
    std::string member; ///< of the snapshot
    DeviceValue before;
    SnapshotValue wanted; ///< by the last record that was applied
    DeviceValue after;
    std::string why; ///< it is not as wanted, or not known to be; empty if it is
};

/// How an exchange went, for the cloud backup client that started it.
struct ExchangeReport {
    enum class Result {
        undecided, ///< it was interrupted, or is under way
        succeeded,
        failed,
        no_platform, ///< failed, since the device's platform isn't there
        no_daemon,   ///< the same, for want of the SCIM daemon
        no_keyboard, ///< the same, for want of an active input method
        no_backup,   ///< failed, since there is no such backup
        damaged,     ///< failed, since the backup is damaged
        timed_out,
        interrupted, ///< the client's own
    };

    std::string operation; ///< "backup", "restore" or "info"
    Result result = Result::undecided;
    std::string reason;                  ///< of a failure, for a person; or what is not known of a success
    BackupNumber backup = 0;             ///< that was made or restored; 0 if there is none
    bool storing = false;                ///< whether it began to store a backup
    bool stored = false;                 ///< whether it did
    CloudRecords records;                ///< without their values
    std::vector<SettingReport> settings; ///< of a restore
    std::vector<Change> changes;
};

/// The report of a restore that goes by this plan.
ExchangeReport report_planned(const RestorePlan &plan, BackupNumber number, const CloudRecords &records);

/// Throws the failure that a report tells of, as it was thrown in the exchange; nothing when it succeeded.
void throw_failure(const ExchangeReport &report);

/// Throws the reason why a device can't be backed up.
[[noreturn]] void throw_obstacle(const Obstacle &obstacle);

/// Reads a backup that is to be restored.
///
/// @throws DamagedError and UnreadableError, which name the backup
Backup read_for_restore(const CloudStore &store, BackupNumber number);

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
