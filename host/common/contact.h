/** @file
 * What ime-backupctl and the service that it starts tell each other: variables of the service's environment,
 * and files below the state root.
 */
#pragma once

/// Names the place of the store: a folder, or "rclone:REMOTE:PATH".
inline constexpr char STORE_VARIABLE[] = "IME_BACKUP_CLOUD_STORE";

/// Seconds that the service may take.
inline constexpr char TIMEOUT_VARIABLE[] = "IME_BACKUP_TIMEOUT";

/// Names the backup that a restore takes, else it takes the newest.
inline constexpr char RESTORE_VARIABLE[] = "IME_BACKUP_RESTORE";

/// Names an open file that the report of an exchange goes to: the changes as they are made, then the whole.
inline constexpr char REPORT_VARIABLE[] = "IME_BACKUP_REPORT";

/// The report of the last exchange.
inline constexpr char LAST_REPORT[] = "last-exchange.json";

/// A report that a restore keeps as it goes, from when it begins to change the device. It begins undecided,
/// with the settings as they were.
inline constexpr char LAST_RESTORE[] = "last-restore.json";

/// Exchanges share their files, so one process at a time holds this lock.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";
