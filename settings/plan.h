/** @file
 * The planned result of a backup and of a restore. After the service has run, the actual result is compared
 * with the plan.
 */
#pragma once

#include <functional>

#include "snapshot.h"

/// Returns why the device can't store a value, for a person, or an empty text if it can.
using FindRefusal = std::function<std::string(const SettingRow &row, const DeviceValue &value)>;

/// A setting whose value can't be backed up.
struct Obstacle {
    const SettingRow &row;
    std::string reason; ///< for a person
};

struct BackupPlan {
    SnapshotValues snapshot; ///< what each record of the backup holds
    DeviceState device;      ///< after the backup, which sets missing languages to the default
    /// Why the device can't be backed up; empty if it can. Unless the keyboard is an obstacle, the service
    /// makes a snapshot nevertheless.
    std::vector<Obstacle> obstacles;
};

BackupPlan plan_backup(const DeviceState &device, const FindRefusal &find_refusal);

/// The effect of a restore on a setting.
struct RestoredSetting {
    SnapshotValue wanted; ///< the value in the last record that is applied
    DeviceValue before;
    DeviceValue after;
    std::string why;     ///< why `after` is not as wanted, for a person; empty if it is as wanted
    std::string refusal; ///< why the device can't store the last value; empty if it can
};

struct RestorePlan {
    std::vector<bool> failed; ///< for each record, true if it can't be read
    std::array<RestoredSetting, SETTINGS.size()> settings;
    std::vector<std::string> refusals; ///< for all records

    /// The device after the restore.
    DeviceState device;
};

/// @param records  the records' values; nothing for a record without a value
RestorePlan plan_restore(const std::vector<std::optional<std::string>> &records, const DeviceState &device,
                         const FindRefusal &find_refusal);
