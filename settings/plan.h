/** @file
 * The rules of a backup and of a restore: what an exchange with the service comes to. The service runs, and
 * what it did is compared with these.
 */
#pragma once

#include <functional>

#include "snapshot.h"

/// Why the device does not keep a value, for a person; an empty text if it does.
using Refuses = std::function<std::string(const SettingRow &row, const DeviceValue &value)>;

/// A setting whose value can't be backed up.
struct Obstacle {
    const SettingRow &row;
    std::string reason; ///< for a person
};

struct BackupPlan {
    SnapshotValues snapshot; ///< what each record of the backup holds
    DeviceState device;      ///< afterwards: languages that were not set are the default ones
    /// The device can't be backed up as it is. Where another setting than the keyboard is in the way, the
    /// service makes a snapshot nevertheless.
    std::vector<Obstacle> obstacles;
};

/// What a backup of this device holds.
BackupPlan plan_backup(const DeviceState &device, const Refuses &refuses);

/// What a restore makes of a setting.
struct RestoredSetting {
    SnapshotValue wanted; ///< by the last record that is applied
    DeviceValue before;
    DeviceValue after;
    std::string why;     ///< it is not as wanted, for a person; empty if it is
    std::string refusal; ///< the device's, of the value that was last to be written
};

struct RestorePlan {
    std::vector<bool> failed; ///< for each record, whether it can't be read
    std::array<RestoredSetting, SETTINGS.size()> settings;
    std::vector<std::string> refusals; ///< all of the device's

    /// The device afterwards.
    DeviceState device;
};

/// What a restore of these records makes of this device.
///
/// @param records their values
RestorePlan plan_restore(const std::vector<std::optional<std::string>> &records, const DeviceState &device,
                         const Refuses &refuses);
