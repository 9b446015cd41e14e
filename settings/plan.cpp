#include "plan.h"

#include <algorithm>

// Backup.

/// The service's JSON generator does not escape this character, so that strict parsers reject the snapshot.
static constexpr char UNIT_SEPARATOR = '\x1f';

static std::string another_type_under(const SettingRow &row)
{
    const char *place = row.place == SettingPlace::settings_store ? "settings store" : "configuration";
    return std::string("the ") + place + " holds a value of another type under " + row.key;
}

BackupPlan plan_backup(const DeviceState &device, const FindRefusal &find_refusal)
{
    BackupPlan plan{{}, device, {}};
    const auto add_obstacle = [&](const SettingRow &row, const std::string &reason) {
        plan.obstacles.push_back({row, reason});
    };
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        const SettingRow &row = SETTINGS[i];
        DeviceValue &value = plan.device[i];
        SnapshotValue &member = plan.snapshot[i];
        switch (row.form) {
        case SettingForm::identifier:
            if (!value)
                add_obstacle(row, "no input method is active");
            else if (!find_refusal(row, value).empty())
                add_obstacle(row, "the active input method has no usable identifier");
            else
                member = std::get<std::string>(*value);
            break;
        case SettingForm::languages: {
            if (!value)
                value = DEFAULT_SELECTED_LANG;
            const auto *list = std::get_if<std::string>(&*value);
            if (list == nullptr)
                add_obstacle(row, another_type_under(row));
            else if (list->find(UNIT_SEPARATOR) != std::string::npos)
                add_obstacle(row, "a selected language has a character that no snapshot can hold");
            std::vector<std::string> languages = split_list(list == nullptr ? "" : *list);
            std::sort(languages.begin(), languages.end());
            member = languages;
            break;
        }
        case SettingForm::boolean_switch:
        case SettingForm::integer_switch:
            const std::optional<bool> is_on = read_switch(row, value);
            if (value && !is_on)
                add_obstacle(row, another_type_under(row));
            member = is_on.value_or(true);
            break;
        }
    }
    return plan;
}

// Restore.

/// Returns the text that a device stores for a setting, or an empty text.
static std::string text_of(const DeviceState &device, const SettingRow &row)
{
    const DeviceValue &value = device[index_of(row)];
    const auto *text = value ? std::get_if<std::string>(&*value) : nullptr;
    return text == nullptr ? "" : *text;
}

static bool has_language(const std::string &list, const std::string &language)
{
    return list.find(language) != std::string::npos; // also matches part of another language
}

namespace
{

/// The languages that a record selects on this device.
struct Selection {
    std::string list; ///< only languages that are downloaded
    bool has_handwriting = false;
};

} // namespace

static Selection select_languages(const std::vector<std::string> &languages, const DeviceState &device)
{
    const std::string downloaded = text_of(device, DOWNLOADED_LISTS[0]);
    const std::string with_handwriting = text_of(device, DOWNLOADED_LISTS[1]);
    Selection selection;
    for (const std::string &language : languages)
        if (has_language(downloaded, language)) {
            selection.list += language + LANGUAGE_DELIMITER;
            selection.has_handwriting = selection.has_handwriting || has_language(with_handwriting, language);
        }
    return selection;
}

/// Applies one record's snapshot to the plan.
static void apply(const SnapshotValues &snapshot, RestorePlan &plan, const FindRefusal &find_refusal)
{
    bool has_handwriting = false; // the table has languages before switches
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        const SettingRow &row = SETTINGS[i];
        DeviceValue &value = plan.device[i];
        RestoredSetting &setting = plan.settings[i];
        setting.wanted = snapshot[i];
        setting.refusal.clear();
        if (row.form == SettingForm::identifier) {
            const DeviceValue keyboard = device_value(row, snapshot[i]);
            if (!keyboard || keyboard == DeviceValue("") || keyboard == value)
                continue;
            setting.refusal = find_refusal(row, keyboard);
            if (setting.refusal.empty())
                value = keyboard;
            else
                plan.refusals.push_back(setting.refusal);
        } else if (row.form == SettingForm::languages) {
            const auto *languages = std::get_if<std::vector<std::string>>(&snapshot[i]);
            const Selection selection =
                select_languages(languages == nullptr ? std::vector<std::string>() : *languages, plan.device);
            if (!selection.list.empty())
                value = selection.list;
            has_handwriting = selection.has_handwriting;
        } else {
            const bool is_on = snapshot[i] == SnapshotValue(true) &&
                               (has_handwriting || row.member != std::string_view(MEMBER_HANDWRITING));
            value = device_value(row, is_on);
        }
    }
}

static std::string why_languages_differ(const std::vector<std::string> &wanted, const DeviceState &device)
{
    if (std::ranges::all_of(wanted, &std::string::empty))
        return "the backup selects no language";
    std::vector<std::string> missing;
    std::copy_if(wanted.begin(), wanted.end(), std::back_inserter(missing), [&](const std::string &language) {
        return !has_language(text_of(device, DOWNLOADED_LISTS[0]), language);
    });
    return join(missing, ", ") + (missing.size() == 1 ? " is" : " are") + " not downloaded";
}

static std::string why_different(const SettingRow &row, const RestoredSetting &setting,
                                 const DeviceState &device)
{
    const DeviceValue wanted = device_value(row, setting.wanted);
    if (wanted && is_same_value(row, wanted, setting.after))
        return "";
    if (!setting.refusal.empty())
        return "it could not be written";
    if (!wanted || row.form == SettingForm::identifier)
        return is_switch(row) ? "not in the backup: switched off" : "not in the backup";
    if (row.form == SettingForm::languages)
        return why_languages_differ(std::get<std::vector<std::string>>(setting.wanted), device);
    return "no restored language can be written by hand";
}

RestorePlan plan_restore(const std::vector<std::optional<std::string>> &records, const DeviceState &device,
                         const FindRefusal &find_refusal)
{
    RestorePlan plan{{}, {}, {}, device};
    for (const std::optional<std::string> &record : records) {
        const std::optional<Snapshot> snapshot = record ? read_snapshot(*record) : std::nullopt;
        plan.failed.push_back(!snapshot);
        if (snapshot)
            apply(snapshot->values, plan, find_refusal);
    }
    const bool is_any_applied = std::count(plan.failed.begin(), plan.failed.end(), false) != 0;
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        RestoredSetting &setting = plan.settings[i];
        setting.before = device[i];
        setting.after = plan.device[i];
        setting.why = is_any_applied ? why_different(SETTINGS[i], setting, device) : "no record was applied";
    }
    return plan;
}
