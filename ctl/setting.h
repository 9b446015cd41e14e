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

/// What a backup of this device would hold, once no exchange is under way.
///
/// @throws TimeoutError
BackupPlan plan_backup_here();

/// A setting's place and key, for a person.
std::string place_of(const SettingRow &row);

/// A value as a person writes it.
///
/// @throws UsageError when the text is no value of this setting
DeviceValue parse_value(const SettingRow &row, const std::string &text);

Cell cell_of(const SettingRow &row, const DeviceValue &value);

/// For settings that were changed.
inline const Table CHANGES{{{"name", "setting"}, {"before", "before"}, {"after", "after"}}};
