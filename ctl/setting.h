#pragma once

#include <string>
#include <vector>

#include "device.h"
#include "document.h"
#include "history.h"
#include "plan.h"

struct Cli;

std::vector<std::string> names_of_settings();

/// @throws UsageError if there is no setting of this name
const SettingRow &find_setting(const std::string &name);

/// Returns this device. Its library is loaded on first use, since many commands don't need it.
///
/// @throws PlatformError if the library can't be loaded
Device &open_device();

/// Waits until no exchange is running, and plans a backup of this device.
///
/// @throws TimeoutError
BackupPlan plan_backup_here();

/// Returns where the device keeps a setting, and under which key, for people.
std::string place_of(const SettingRow &row);

/// Reads a value from the command line.
///
/// @throws UsageError if it is not a value of this setting
DeviceValue parse_value(const SettingRow &row, const std::string &text);

Cell cell_of(const SettingRow &row, const DeviceValue &value);

/// Settings with their new values.
using NewValues = std::vector<std::pair<SettingRow, DeviceValue>>;

/// The operation behind a change of settings, as the history records it: see HistoryEntry.
struct Cause {
    std::string what;
    EntryNumber undoes = 0;
    std::uint64_t backup = 0;
    std::string store{};
    std::string failure{}; ///< why the operation fails although all settings could be changed, or ""
};

/// Changes settings of this device, records an entry in its history, and checks that the device holds the new
/// values. The caller holds the lock of lock_exchanges().
///
/// @param[in,out] cli its document's "settings" are set to those that were changed, also on failure
/// @return all given settings, before and after
Table change_device(Cli &cli, const Cause &cause, const NewValues &values);

/// An empty table of changed settings.
inline const Table CHANGES{{{"name", "setting"}, {"before", "before"}, {"after", "after"}}};
