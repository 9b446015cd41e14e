#include "setting.h"

#include <algorithm>
#include <dlfcn.h>
#include <exception>
#include <functional>
#include <map>
#include <sstream>

#include <glib.h>

#include "cli.h"
#include "text.h"

std::vector<std::string> names_of_settings()
{
    std::vector<std::string> names;
    for (const SettingRow &row : ALL_SETTINGS)
        names.emplace_back(row.member);
    return names;
}

const SettingRow &find_setting(const std::string &name)
{
    for (const SettingRow &row : ALL_SETTINGS)
        if (row.member == name)
            return row;
    const std::string hint = did_you_mean(name, names_of_settings());
    throw UsageError("unknown setting \"" + name + "\"" +
                     (hint.empty() ? "; the settings are " + join(names_of_settings(), ", ") : hint));
}

Device &open_device()
{
    static Device *const device = [] {
        void *library = dlopen("libime-backup-device.so", RTLD_NOW);
        if (library == nullptr)
            throw PlatformError(std::string("can't load the device: ") + dlerror());
        return reinterpret_cast<decltype(host_device) *>(dlsym(library, "host_device"))();
    }();
    return *device;
}

BackupPlan plan_backup_here()
{
    const FileLock lock = lock_exchanges(true);
    Device &device = open_device();
    return plan_backup(device.read_all(), std::bind_front(&Device::refuses, &device));
}

std::string place_of(const SettingRow &row)
{
    if (row.place == SettingPlace::input_method_control)
        return "input-method control: active input method";
    const bool is_stored = row.place == SettingPlace::settings_store;
    return (is_stored ? "settings store: " : "input-method configuration: ") + std::string(row.key);
}

// Values.

static bool parse_switch(const std::string &text)
{
    static constexpr const char *WORDS[][2] = {{"true", "false"}, {"on", "off"}, {"yes", "no"}, {"1", "0"}};
    for (const auto &[on, off] : WORDS)
        if (text == on || text == off)
            return text == on;
    throw UsageError("\"" + text + "\" is neither true nor false");
}

/// Does without a regular expression, whose use of the stack grows with the text.
static bool is_language(const std::string &text)
{
    static constexpr std::string_view MARKS = "_@.-";
    return g_ascii_isalpha(text.front()) != FALSE && std::all_of(text.begin(), text.end(), [](char c) {
               return g_ascii_isalnum(c) != FALSE || MARKS.find(c) != std::string_view::npos;
           });
}

/// Returns the list as the device holds it: a delimiter follows each language.
static std::string parse_languages(const std::string &text)
{
    std::string list;
    std::istringstream pieces(text);
    for (std::string piece; std::getline(pieces, piece, ',');) {
        if (piece.empty())
            continue;
        if (!is_language(piece))
            throw UsageError("\"" + piece +
                             "\" is not a language such as en_US; separate languages with commas");
        list += piece + LANGUAGE_DELIMITER;
    }
    return list;
}

DeviceValue parse_value(const SettingRow &row, const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE)
        throw UsageError("the value is not UTF-8 text");
    if (row.form == SettingForm::boolean_switch)
        return parse_switch(text);
    if (row.form == SettingForm::integer_switch)
        return parse_switch(text) ? 1 : 0;
    if (row.form == SettingForm::languages)
        return parse_languages(text);
    if (std::any_of(text.begin(), text.end(), [](char c) { return g_ascii_iscntrl(c) != FALSE; }))
        throw UsageError("an identifier can't contain control characters");
    return text;
}

Cell cell_of(const SettingRow &row, const DeviceValue &value)
{
    Json json;
    if (const auto *text = value ? std::get_if<std::string>(&*value) : nullptr; text != nullptr)
        json = row.form == SettingForm::languages ? Json(split_languages(*text)) : Json(*text);
    else if (value)
        json = bool(value != DeviceValue(false) && value != DeviceValue(0));
    return {json, format_value(row, value)};
}

// Changes.

/// Writes the values durably, and throws if the device holds other values afterwards.
static void write_values(Device &device, const NewValues &values)
{
    std::map<std::string, std::string> refusals;
    for (const auto &[row, value] : values)
        try {
            device.write(row, value);
        } catch (const ValueError &error) {
            refusals[row.member] = error.what();
        }
    device.make_durable();
    std::vector<std::string> failures;
    for (const auto &[row, value] : values)
        if (device.read_one(row) != value) {
            const std::string &refusal = refusals[row.member];
            failures.push_back(std::string(row.member) + " (" +
                               (refusal.empty() ? "something else changed it meanwhile" : refusal) + ")");
        }
    if (!failures.empty())
        throw HostError("not changed: " + join(failures, ", "));
}

/// Reads the current values of the given settings.
static NamedValues read_targets(Device &device, const NewValues &values)
{
    std::vector<SettingRow> rows;
    for (const auto &[row, value] : values)
        rows.push_back(row);
    const std::vector<DeviceValue> read = device.read(rows);
    NamedValues named;
    for (size_t i = 0; i < rows.size(); i++)
        named.emplace(rows[i].member, read[i]);
    return named;
}

/// Reads the settings after a change. If they can't be read, returns the planned values.
static NamedValues read_again(Device &device, const NewValues &values)
{
    try {
        return read_targets(device, values);
    } catch (const HostError &) {
        NamedValues named;
        for (const auto &[row, value] : values)
            named.emplace(row.member, value);
        return named;
    }
}

Table change_device(Cli &cli, const Cause &cause, const NewValues &values)
{
    Device &device = open_device();
    for (const auto &[row, value] : values)
        device.require_writable(row);
    const NamedValues before = read_targets(device, values);
    Table all = CHANGES;
    NamedValues planned;
    for (const auto &[row, value] : values) {
        const DeviceValue &old = before.at(row.member);
        all.rows.push_back({row.member, cell_of(row, old), cell_of(row, value)});
        if (old != value)
            planned.emplace(row.member, value);
    }
    HistoryWriter entry(cause.what, cause.undoes);
    if (cause.backup != 0)
        entry.set_backup(cause.backup, cause.store);
    if (!planned.empty())
        entry.plan(before, planned);

    std::string reason = cause.failure;
    std::exception_ptr failure;
    try {
        write_values(device, values);
    } catch (const HostError &error) {
        reason = error.what();
        failure = std::current_exception();
    }
    const NamedValues after = read_again(device, values);
    Table changes = CHANGES;
    std::vector<std::string> changed;
    for (const SettingRow &row : ALL_SETTINGS)
        if (before.contains(row.member) && before.at(row.member) != after.at(row.member)) {
            changes.rows.push_back(
                {row.member, cell_of(row, before.at(row.member)), cell_of(row, after.at(row.member))});
            changed.emplace_back(row.member);
        }
    cli.document.set("settings", changes);
    entry.finish(reason.empty(), reason, changed);
    if (failure != nullptr)
        std::rethrow_exception(failure);
    return all;
}
