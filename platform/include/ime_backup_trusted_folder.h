/** @file
 * The record files of a backup and of a restore, in the folder that the application shares with the cloud
 * library.
 */
#pragma once

#define IME_BACKUP_TRUSTED_FOLDER "/opt/usr/apps/com.orvanta.ime-backup-service/shared/trusted"
#define IME_BACKUP_BACKUP_FILE IME_BACKUP_TRUSTED_FOLDER "/backup.dat"
#define IME_BACKUP_RESTORE_FILE IME_BACKUP_TRUSTED_FOLDER "/restore.dat"
