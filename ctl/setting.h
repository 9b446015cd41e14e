#pragma once

#include <string>
#include <vector>

#include "account.h"
#include "document.h"
#include "report.h"

/// All settings: those of a snapshot, then the lists that decide what of one a restore can bring back.
const std::vector<SettingRow> &all_settings();

std::vector<std::string> names_of_settings();

/// @throws UsageError when there is no setting of this name
const SettingRow &find_setting(const std::string &name);

/// The first setting of a snapshot that has this form.
const SettingRow &first_of(SettingForm form);

/// From here on this program only reads: nothing is made on the way, be it an empty settings store.
void begin_reading();

/// How this program reaches a setting.
///
/// @throws PlatformError when no library of the host keeps it
const DeviceAccess &access_to(const SettingRow &row);

/// A setting's place and key, for a person.
std::string place_of(const SettingRow &row);

// A value as a person writes it. One that is not set has a text, too.

std::string format_value(const SettingRow &row, const DeviceValue &value);
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

/// What a restore came to for one setting of a snapshot.
struct SettingOutcome {
    const SettingRow &row;
    DeviceValue before;
    DeviceValue wanted; ///< by the snapshot
    DeviceValue after;
    std::string why; ///< it is not what was wanted; empty when it is
};

std::vector<SettingOutcome> tell_outcomes(const ExchangeReport &report);
