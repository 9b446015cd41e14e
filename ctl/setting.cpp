#include "setting.h"

#include <algorithm>

#include <glib.h>

#include "json.h"
#include "status.h"
#include "text.h"

std::vector<SettingRow> all_settings()
{
    std::vector<SettingRow> rows(std::begin(SETTINGS), std::end(SETTINGS));
    rows.insert(rows.end(), std::begin(DOWNLOADED_LISTS), std::end(DOWNLOADED_LISTS));
    return rows;
}

const SettingRow &find_setting(const std::string &name)
{
    std::string known;
    static const std::vector<SettingRow> rows = all_settings();
    for (const SettingRow &row : rows) {
        if (row.member == name)
            return row;
        known += (known.empty() ? "" : ", ") + std::string(row.member);
    }
    throw UsageError("there is no setting \"" + name + "\"; there are " + known);
}

const char *name_of(SettingPlace place)
{
    switch (place) {
    case SettingPlace::input_method_control:
        return "input-method control: active input method";
    case SettingPlace::settings_store:
        return "settings store: ";
    case SettingPlace::configuration:
        return "input-method configuration: ";
    }
    return "";
}

// Values.

static std::vector<std::string> split_languages(const std::string &text, const char *delimiters)
{
    std::vector<std::string> languages;
    g_auto(GStrv) pieces = g_strsplit_set(text.c_str(), delimiters, -1);
    for (gchar **piece = pieces; *piece != nullptr; piece++)
        if (**piece != '\0')
            languages.emplace_back(*piece);
    return languages;
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
    const std::string languages = join(split_languages(text, "#"), ",");
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

DeviceValue parse_value(const SettingRow &row, const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE)
        throw UsageError("the value is no UTF-8 text");
    std::string list;
    switch (row.form) {
    case SettingForm::boolean_switch:
        return parse_switch(text);
    case SettingForm::integer_switch:
        return parse_switch(text) ? 1 : 0;
    case SettingForm::languages:
        for (const std::string &language : split_languages(text, ", #"))
            list += language + LANGUAGE_DELIMITER;
        return list;
    case SettingForm::identifier:
        break;
    }
    return text;
}

// What a restore came to.

/// The languages that a snapshot selects, in the form in which the device keeps them.
static DeviceValue read_languages(JsonObject *snapshot, const char *member)
{
    JsonArray *array = get_array(snapshot, member);
    if (array == nullptr)
        return std::nullopt;
    std::string list;
    for (guint i = 0; i < json_array_get_length(array); i++)
        if (const auto language = get_text(get_object(json_array_get_element(array, i)), MEMBER_LANG_ID);
            language)
            list += *language + LANGUAGE_DELIMITER;
    return list;
}

/// The value that a snapshot holds for a setting, in the form in which the device keeps it.
static DeviceValue read_member(JsonObject *snapshot, const SettingRow &row)
{
    if (row.form == SettingForm::languages)
        return read_languages(snapshot, row.member);
    if (row.form == SettingForm::identifier) {
        const auto text = get_text(snapshot, row.member);
        return text ? DeviceValue(*text) : std::nullopt;
    }
    JsonNode *node = get_member(snapshot, row.member);
    if (node == nullptr || !JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) == G_TYPE_STRING)
        return std::nullopt;
    const bool is_on = json_node_get_boolean(node) != FALSE; // a number, too, as the service has it
    return row.form == SettingForm::integer_switch ? DeviceValue(is_on ? 1 : 0) : DeviceValue(is_on);
}

/// The report's value of a setting before the restore.
static std::string value_before(const ExchangeReport &report, const SettingRow &row)
{
    for (const SettingReport &setting : report.settings)
        if (setting.member == row.member && setting.before &&
            std::holds_alternative<std::string>(*setting.before))
            return std::get<std::string>(*setting.before);
    return "";
}

static std::string why_languages_differ(const ExchangeReport &report, const std::string &wanted)
{
    const auto &[downloaded_row, with_handwriting_row] = DOWNLOADED_LISTS;
    const std::string downloaded = value_before(report, downloaded_row);
    std::vector<std::string> missing;
    const std::vector<std::string> languages = split_languages(wanted, "#");
    for (const std::string &language : languages)
        if (downloaded.find(language) == std::string::npos)
            missing.push_back(language);
    if (languages.empty())
        return "the backup selects no language";
    if (missing.empty())
        return "";
    return join(missing, ", ") + (missing.size() == 1 ? " is" : " are") + " not downloaded";
}

/// Why the last change to a setting was not made, or empty when it was or there was none.
static std::string why_unwritten(const ExchangeReport &report, const SettingRow &row)
{
    std::string why;
    for (const Change &change : report.changes)
        if (change.place == row.place && change.key == row.key)
            why = change.outcome == Change::Outcome::made      ? ""
                  : change.outcome == Change::Outcome::refused ? "it could not be written"
                                                               : "it may not have been written";
    return why;
}

static std::string why_different(const ExchangeReport &report, const SettingOutcome &outcome)
{
    if (outcome.wanted &&
        format_value(outcome.row, outcome.wanted) == format_value(outcome.row, outcome.after))
        return "";
    if (const std::string why = why_unwritten(report, outcome.row); !why.empty())
        return why;
    if (!outcome.wanted ||
        (outcome.row.form == SettingForm::identifier && std::get<std::string>(*outcome.wanted).empty()))
        return "the backup does not hold it";
    std::string why;
    if (outcome.row.form == SettingForm::languages)
        why = why_languages_differ(report, std::get<std::string>(*outcome.wanted));
    else if (outcome.row.member == std::string(MEMBER_HANDWRITING) && outcome.after == DeviceValue(false))
        why = "no restored language can be written by hand";
    return why.empty() ? "something else changed it meanwhile" : why;
}

std::vector<SettingOutcome> tell_outcomes(const ExchangeReport &report)
{
    g_autoptr(JsonNode) root = report.snapshot.empty() ? nullptr : parse_json(report.snapshot);
    std::vector<SettingOutcome> outcomes;
    for (const SettingRow &row : SETTINGS)
        for (const SettingReport &setting : report.settings)
            if (setting.member == row.member) {
                SettingOutcome outcome{row, setting.before, read_member(get_object(root), row), setting.after,
                                       ""};
                outcome.why = why_different(report, outcome);
                outcomes.push_back(outcome);
            }
    return outcomes;
}
