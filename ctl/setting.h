#pragma once

#include <string>
#include <vector>

#include "device.h"
#include "document.h"
#include "history.h"
#include "plan.h"

struct Cli;

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

/// Settings, and what they are to hold.
using NewValues = std::vector<std::pair<SettingRow, DeviceValue>>;

/// What changes settings; see the members of HistoryEntry.
struct Cause {
    std::string what;
    EntryNumber undoes = 0;
    std::uint64_t backup = 0;
    std::string store{};
    std::string failure{}; ///< why it fails even when all settings are changed; empty if it does not
};

/// Changes settings of this device, as an entry of its history, and checks that they hold the new values.
/// Whoever calls it holds the turn.
///
/// @param[in,out] cli its document's "settings" become those that were changed, also when some could not be
/// @return the values before and after
Table change_device(Cli &cli, const Cause &cause, const NewValues &values);

/// For settings that were changed.
inline const Table CHANGES{{{"name", "setting"}, {"before", "before"}, {"after", "after"}}};
