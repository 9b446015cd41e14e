#include "setting_value.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

size_t index_of(const SettingRow &row)
{
    size_t index = 0;
    while (ALL_SETTINGS[index].member != std::string_view(row.member))
        index++;
    return index;
}

const SettingRow &first_of(SettingForm form)
{
    return *std::find_if(std::begin(ALL_SETTINGS), std::end(ALL_SETTINGS),
                         [&](const SettingRow &row) { return row.form == form; });
}

std::string config_text(const DeviceValue &value)
{
    if (!value)
        return "";
    if (const bool *truth = std::get_if<bool>(&*value); truth != nullptr)
        return *truth ? "true" : "false";
    const int *number = std::get_if<int>(&*value);
    return number != nullptr ? std::to_string(*number) : std::get<std::string>(*value);
}

static std::optional<bool> read_boolean(const std::string &text)
{
    for (const char *word : {"true", "TRUE", "True", "1"})
        if (text == word)
            return true;
    for (const char *word : {"false", "FALSE", "False", "0"})
        if (text == word)
            return false;
    return std::nullopt;
}

std::optional<bool> read_switch(const SettingRow &row, const DeviceValue &value)
{
    if (!value)
        return std::nullopt;
    if (row.place == SettingPlace::settings_store)
        return std::holds_alternative<bool>(*value) ? std::optional(std::get<bool>(*value)) : std::nullopt;
    const std::string text = config_text(value);
    if (row.form == SettingForm::boolean_switch)
        return read_boolean(text);
    return static_cast<int>(strtol(text.c_str(), nullptr, 10)) != 0; // a text without a number is 0
}

std::vector<std::string> split_list(const std::string &list)
{
    std::vector<std::string> pieces;
    for (size_t begin = 0; begin < list.size();) {
        const size_t end = std::min(list.find(LANGUAGE_DELIMITER, begin), list.size());
        pieces.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return pieces;
}

std::vector<std::string> split_languages(const std::string &list)
{
    std::vector<std::string> languages = split_list(list);
    std::erase(languages, "");
    return languages;
}

std::string join_languages(const std::vector<std::string> &languages)
{
    std::string list;
    for (const std::string &language : languages)
        list += language + LANGUAGE_DELIMITER;
    return list;
}

bool is_same_value(const SettingRow &row, const DeviceValue &one, const DeviceValue &other)
{
    if (row.form != SettingForm::languages || !one || !other || !std::holds_alternative<std::string>(*one) ||
        !std::holds_alternative<std::string>(*other))
        return one == other;
    const auto sorted = [](const DeviceValue &value) {
        std::vector<std::string> languages = split_languages(std::get<std::string>(*value));
        std::sort(languages.begin(), languages.end());
        return languages;
    };
    return sorted(one) == sorted(other);
}

std::string format_value(const SettingRow &row, const DeviceValue &value)
{
    if (!value)
        return "(not set)";
    if (const bool *truth = std::get_if<bool>(&*value); truth != nullptr)
        return *truth ? "true" : "false";
    if (const int *number = std::get_if<int>(&*value); number != nullptr)
        return *number != 0 ? "true" : "false";
    const auto &text = std::get<std::string>(*value);
    if (row.form != SettingForm::languages)
        return text;
    const std::string languages = join(split_languages(text), ",");
    return languages.empty() ? "(none)" : languages;
}
