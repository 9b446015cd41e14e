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

/// Below the state root. What changes the device, and exchanges, take turns: one process at a time holds this
/// lock.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";
