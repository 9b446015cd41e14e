#pragma once

#include <array>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ime_backup_settings.h"
#include "join.h"

/// A value as the device keeps it; none when it is not set.
using DeviceValue = std::optional<std::variant<bool, int, std::string>>;

/// A device's values, in the order of #ALL_SETTINGS.
using DeviceState = std::array<DeviceValue, std::size(ALL_SETTINGS)>;

/// The row's place in #ALL_SETTINGS.
size_t index_of(const SettingRow &row);

/// The first row of this form, such as that of the active keyboard.
const SettingRow &first_of(SettingForm form);

constexpr bool is_switch(const SettingRow &row)
{
    return row.form == SettingForm::boolean_switch || row.form == SettingForm::integer_switch;
}

/// A value as the framework's configuration keeps it: each is a text.
std::string config_text(const DeviceValue &value);

/// What the platform yields for a switch.
///
/// @return nothing when its key is not set, or holds what can't be read as one
std::optional<bool> read_switch(const SettingRow &row, const DeviceValue &value);

/// The pieces of a language list, each of which the delimiter ends, empty ones included.
std::vector<std::string> split_list(const std::string &list);

/// The languages in a list, for a person: none is empty.
std::vector<std::string> split_languages(const std::string &list);

/// A list that holds these languages.
std::string join_languages(const std::vector<std::string> &languages);

/// Whether two values of a setting are the same. A backup sorts languages, so their order does not matter.
bool is_same_value(const SettingRow &row, const DeviceValue &one, const DeviceValue &other);

/// A value for a person. One that is not set has a text, too.
std::string format_value(const SettingRow &row, const DeviceValue &value);
