/** @file
 * Names that ime-backupctl and the service share: environment variables of the service, and a file in the
 * state root.
 */
#pragma once

/// The location of the store: a folder, or "rclone:REMOTE:PATH".
inline constexpr char STORE_VARIABLE[] = "IME_BACKUP_CLOUD_STORE";

/// The time limit of the service, in seconds.
inline constexpr char TIMEOUT_VARIABLE[] = "IME_BACKUP_TIMEOUT";

/// The backup that a restore takes; default: the newest.
inline constexpr char RESTORE_VARIABLE[] = "IME_BACKUP_RESTORE";

/// The open file for the report of an exchange, see name_report_file(). The service writes each change to it
/// when it makes the change, and the whole report at the end.
inline constexpr char REPORT_VARIABLE[] = "IME_BACKUP_REPORT";

/// A file in the state root. A process locks it for an exchange, or to change the device.
inline constexpr char EXCHANGE_LOCK[] = "exchange.lock";
