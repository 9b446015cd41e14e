#include "setting.h"

#include <algorithm>
#include <dlfcn.h>
#include <regex>

#include <glib.h>

#include "client.h"
#include "snapshot.h"
#include "status.h"
#include "suggestion.h"
#include "text.h"

const std::vector<SettingRow> &all_settings()
{
    static const std::vector<SettingRow> rows = [] {
        std::vector<SettingRow> all(std::begin(SETTINGS), std::end(SETTINGS));
        all.insert(all.end(), std::begin(DOWNLOADED_LISTS), std::end(DOWNLOADED_LISTS));
        return all;
    }();
    return rows;
}

std::vector<std::string> names_of_settings()
{
    std::vector<std::string> names;
    for (const SettingRow &row : all_settings())
        names.emplace_back(row.member);
    return names;
}

const SettingRow &find_setting(const std::string &name)
{
    for (const SettingRow &row : all_settings())
        if (row.member == name)
            return row;
    const std::vector<std::string> names = names_of_settings();
    const std::string hint = did_you_mean(name, names);
    throw UsageError("there is no setting \"" + name + "\"" +
                     (hint.empty() ? "; there are " + join(names, ", ") : hint));
}

const SettingRow &first_of(SettingForm form)
{
    return *std::find_if(std::begin(SETTINGS), std::end(SETTINGS),
                         [&](const SettingRow &row) { return row.form == form; });
}

void begin_reading()
{
    account().start({}, Account::Kind::trial);
}

/// Loads the libraries that keep the settings; each registers what it keeps. Most commands leave the device
/// to the service, and start sooner without them.
static bool load_device()
{
    for (const char *library : {LIBDIR_FROM_BINDIR "/libvconf.so", LIBDIR_FROM_BINDIR "/libisf-control.so",
                                LIBDIR_FROM_BINDIR "/libscim-config-module.so"})
        if (dlopen(find_beside(library).c_str(), RTLD_NOW | RTLD_GLOBAL) == nullptr)
            throw PlatformError(std::string("can't load ") + dlerror());
    return true;
}

const DeviceAccess &access_to(const SettingRow &row)
{
    [[maybe_unused]] static const bool loaded = load_device();
    const DeviceAccess *access = device_access(row.place);
    if (access == nullptr)
        throw PlatformError(std::string("no library of the host keeps ") + row.member);
    return *access;
}

std::string place_of(const SettingRow &row)
{
    switch (row.place) {
    case SettingPlace::input_method_control:
        return "input-method control: active input method";
    case SettingPlace::settings_store:
        return std::string("settings store: ") + row.key;
    case SettingPlace::configuration:
        return std::string("input-method configuration: ") + row.key;
    }
    return "";
}

// Values.

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

static bool parse_switch(const std::string &text)
{
    for (const char *word : {"true", "on", "yes", "1"})
        if (text == word)
            return true;
    for (const char *word : {"false", "off", "no", "0"})
        if (text == word)
            return false;
    throw UsageError("\"" + text + "\" is neither true nor false");
}

/// Each identifier, with the delimiter behind it.
static std::string parse_languages(const std::string &text)
{
    static const std::regex identifier("[A-Za-z][A-Za-z0-9_@.-]*");
    std::string list;
    g_auto(GStrv) pieces = g_strsplit(text.c_str(), ",", -1);
    for (gchar **piece = pieces; *piece != nullptr; piece++) {
        if (**piece == '\0')
            continue;
        if (!std::regex_match(*piece, identifier))
            throw UsageError(
                "\"" + std::string(*piece) +
                "\" can't be a language's identifier, such as en_US; between several there are commas");
        list += std::string(*piece) + LANGUAGE_DELIMITER;
    }
    return list;
}

DeviceValue parse_value(const SettingRow &row, const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE)
        throw UsageError("the value is no UTF-8 text");
    switch (row.form) {
    case SettingForm::boolean_switch:
        return parse_switch(text);
    case SettingForm::integer_switch:
        return parse_switch(text) ? 1 : 0;
    case SettingForm::languages:
        return parse_languages(text);
    case SettingForm::identifier:
        if (std::any_of(text.begin(), text.end(), [](char c) { return g_ascii_iscntrl(c) != FALSE; }))
            throw UsageError("no identifier has a control character in it");
        break;
    }
    return text;
}

static Json json_of(const SettingRow &row, const DeviceValue &value)
{
    if (!value)
        return nullptr;
    if (const bool *truth = std::get_if<bool>(&*value); truth != nullptr)
        return *truth;
    if (const int *number = std::get_if<int>(&*value); number != nullptr)
        return {*number != 0};
    const auto &text = std::get<std::string>(*value);
    return row.form == SettingForm::languages ? Json(split_languages(text)) : Json(text);
}

Cell cell_of(const SettingRow &row, const DeviceValue &value)
{
    return {json_of(row, value), format_value(row, value)};
}

Table table_of(const std::vector<ChangedSetting> &changes)
{
    Table table{{{"name", "setting"}, {"before", "before"}, {"after", "after"}}, {}};
    for (const ChangedSetting &change : changes)
        table.rows.push_back(
            {change.row.member, cell_of(change.row, change.before), cell_of(change.row, change.after)});
    return table;
}

// What a restore came to.

static std::string why_languages_differ(const ExchangeReport &report, const std::string &wanted)
{
    const std::string downloaded = list_before(report, DOWNLOADED_LISTS[0]);
    std::vector<std::string> missing;
    const std::vector<std::string> languages = split_languages(wanted);
    for (const std::string &language : languages)
        if (downloaded.find(language) == std::string::npos)
            missing.push_back(language);
    if (languages.empty())
        return "the backup selects no language";
    if (missing.empty())
        return "";
    return join(missing, ", ") + (missing.size() == 1 ? " is" : " are") + " not downloaded";
}

/// The last change to a setting; null when there was none.
static const Change *find_change(const ExchangeReport &report, const SettingRow &row)
{
    const auto found =
        std::find_if(report.changes.rbegin(), report.changes.rend(), [&](const Change &change) {
            return change.place == row.place && change.key == row.key;
        });
    return found == report.changes.rend() ? nullptr : &*found;
}

static std::string why_different(const ExchangeReport &report, const SettingOutcome &outcome)
{
    if (report.snapshot.empty())
        return "no record was applied";
    if (outcome.wanted && is_same_value(outcome.row, outcome.wanted, outcome.after))
        return "";
    const Change *change = find_change(report, outcome.row);
    if (change != nullptr && change->outcome != Change::Outcome::made)
        return change->outcome == Change::Outcome::refused ? "it could not be written"
                                                           : "it may not have been written";
    if (!outcome.wanted ||
        (outcome.row.form == SettingForm::identifier && std::get<std::string>(*outcome.wanted).empty()))
        return "the backup does not hold it";
    std::string why;
    if (outcome.row.form == SettingForm::languages)
        why = why_languages_differ(report, std::get<std::string>(*outcome.wanted));
    else if (outcome.row.member == std::string(MEMBER_HANDWRITING) && outcome.after == DeviceValue(false))
        why = "no restored language can be written by hand";
    if (!why.empty())
        return why;
    return change == nullptr ? "it was not written" : "something else changed it meanwhile";
}

std::vector<SettingOutcome> tell_outcomes(const ExchangeReport &report)
{
    const Snapshot wanted = read_snapshot(report.snapshot);
    std::vector<SettingOutcome> outcomes;
    for (size_t i = 0; i < std::size(SETTINGS); i++)
        for (const SettingReport &setting : report.settings)
            if (setting.member == SETTINGS[i].member) {
                SettingOutcome outcome{SETTINGS[i], setting.before, wanted[i], setting.after, ""};
                outcome.why = why_different(report, outcome);
                outcomes.push_back(outcome);
            }
    return outcomes;
}
