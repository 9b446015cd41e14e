#pragma once

#include <string>
#include <vector>

#include "account.h"
#include "report.h"

/// The setting of this name, be it part of a snapshot or one of the lists beside it.
///
/// @throws UsageError when there is none
const SettingRow &find_setting(const std::string &name);

/// All settings, those of a snapshot first.
std::vector<SettingRow> all_settings();

const char *name_of(SettingPlace place);

// A value as a person writes it. One that is not set has a text, too.

std::string format_value(const SettingRow &row, const DeviceValue &value);
/// @throws UsageError when the text is no value of this setting
DeviceValue parse_value(const SettingRow &row, const std::string &text);

/// What a restore came to for one setting of a snapshot.
struct SettingOutcome {
    const SettingRow &row;
    DeviceValue before;
    DeviceValue wanted; ///< by the snapshot
    DeviceValue after;
    std::string why; ///< it is not what was wanted; empty when it is
};

std::vector<SettingOutcome> tell_outcomes(const ExchangeReport &report);
