#pragma once

#include <string>
#include <vector>

#include "device.h"
#include "document.h"
#include "plan.h"

std::vector<std::string> names_of_settings();

/// @throws UsageError when there is no setting of this name
const SettingRow &find_setting(const std::string &name);

/// This device, loaded when it is first needed: most commands leave it to the service.
///
/// @throws PlatformError when its library can't be loaded
Device &open_device();

/// What a backup of this device would hold.
BackupPlan plan_backup_of(Device &device);

/// A setting's place and key, for a person.
std::string place_of(const SettingRow &row);

/// A value as a person writes it.
///
/// @throws UsageError when the text is no value of this setting
DeviceValue parse_value(const SettingRow &row, const std::string &text);

Cell cell_of(const SettingRow &row, const DeviceValue &value);

/// A setting that was changed.
struct ChangedSetting {
    SettingRow row;
    DeviceValue before;
    DeviceValue after;
};

Table table_of(const std::vector<ChangedSetting> &changes);
