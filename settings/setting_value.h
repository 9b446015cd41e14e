#pragma once

#include <array>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ime_backup_settings.h"
#include "join.h"

/// A value as the device stores it; empty if the setting is not set.
using DeviceValue = std::optional<std::variant<bool, int, std::string>>;

/// A device's values, in the order of #ALL_SETTINGS.
using DeviceState = std::array<DeviceValue, std::size(ALL_SETTINGS)>;

/// Returns the row's index in #ALL_SETTINGS.
size_t index_of(const SettingRow &row);

/// Returns the first row of this form.
const SettingRow &first_of(SettingForm form);

constexpr bool is_switch(const SettingRow &row)
{
    return row.form == SettingForm::boolean_switch || row.form == SettingForm::integer_switch;
}

/// Returns a value as the input-method framework's configuration stores it: as text.
std::string config_text(const DeviceValue &value);

/// Returns the state that the platform reads for a switch, or nothing if the key is not set or its value
/// can't be read as a switch.
std::optional<bool> read_switch(const SettingRow &row, const DeviceValue &value);

/// Splits a language list at its delimiters, each of which ends a piece. Keeps empty pieces.
std::vector<std::string> split_list(const std::string &list);

/// Splits a language list, and drops empty pieces.
std::vector<std::string> split_languages(const std::string &list);

/// Returns a language list of these languages.
std::string join_languages(const std::vector<std::string> &languages);

/// True if two values of a setting are the same. A backup sorts languages, so their order does not matter.
bool is_same_value(const SettingRow &row, const DeviceValue &one, const DeviceValue &other);

/// Returns a text for a person, also for a value that is not set.
std::string format_value(const SettingRow &row, const DeviceValue &value);
