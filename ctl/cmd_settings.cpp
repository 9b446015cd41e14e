#include <algorithm>
#include <functional>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "import.h"
#include "setting.h"

void run_settings(Cli &cli)
{
    Table table{{{FOR_PEOPLE, ""}, {FOR_PEOPLE, ""}, {FOR_PEOPLE, ""}}, {}, Remarks::plain};
    const DeviceState state = open_device().read_all();
    for (const SettingRow &row : ALL_SETTINGS) {
        const Cell value = cell_of(row, state[index_of(row)]);
        table.rows.push_back({row.member, value, cli.has("--long") ? place_of(row) : ""});
        cli.document.set(row.member, value.json);
    }
    cli.document.show(table);
}

void run_settings_get(Cli &cli)
{
    const SettingRow &row = find_setting(cli.argument());
    const Cell value = cell_of(row, open_device().read_one(row));
    cli.document.set(row.member, value.json);
    cli.document.say(value.text);
}

/// Changes the settings, or none if one of the values is refused. People get the table of changes on failure
/// only.
static void change_settings(Cli &cli, const std::string &what, const NewValues &values)
{
    cli.document.set_result(false);
    cli.document.set("settings", CHANGES);
    for (const auto &[row, value] : values)
        if (const std::string reason = open_device().refuses(row, value); !reason.empty())
            throw UsageError(std::string(row.member) + ": " + reason);
    const FileLock lock = lock_exchanges(false);
    Table changed = change_device(cli, {what}, values);
    report_success(cli.document, open_device().durability_warning());
    changed.is_for_people = false;
    cli.document.set("settings", changed);
}

void run_settings_set(Cli &cli)
{
    const std::vector<std::string> &pairs = cli.arguments;
    NewValues values;
    for (size_t i = 0; i < pairs.size(); i += 2) {
        const SettingRow &row = find_setting(pairs[i]);
        if (i + 1 == pairs.size())
            throw UsageError(pairs[i] + " requires a value");
        std::erase_if(
            values, [&row](const auto &given) { return std::string_view(given.first.member) == row.member; });
        values.emplace_back(row, parse_value(row, pairs[i + 1])); // the last value of a setting counts
    }
    change_settings(cli, "settings set", values);
}

void run_settings_unset(Cli &cli)
{
    NewValues values;
    for (const std::string &name : cli.arguments)
        values.emplace_back(find_setting(name), std::nullopt);
    change_settings(cli, "settings unset", values);
}

void run_settings_dump(Cli &cli)
{
    run_settings(cli);
    cli.writes_json = true;
}

/// Reads a value from a dump.
static DeviceValue load_value(const SettingRow &row, const nlohmann::json &json)
{
    if (json.is_null())
        return std::nullopt;
    if (is_switch(row) && json.is_boolean())
        return parse_value(row, json.get<bool>() ? "true" : "false");
    const auto is_string = std::mem_fn(&nlohmann::json::is_string);
    if (row.form == SettingForm::languages && json.is_array() && std::ranges::all_of(json, is_string))
        return parse_value(row, join(json.get<std::vector<std::string>>(), ","));
    if (row.form != SettingForm::languages && json.is_string()) // a switch's key may hold a text
        return json.get<std::string>();
    throw UsageError("the value has another type");
}

void run_settings_load(Cli &cli)
{
    static constexpr size_t MAX_SIZE = size_t{1} << 20;
    const std::string name = cli.arguments.empty() ? "-" : cli.argument();
    cli.document.set_result(false);
    NewValues values;
    try {
        const auto dump = nlohmann::json::parse(read_input(name, MAX_SIZE, "loaded"));
        if (!dump.is_object())
            throw UsageError(name + " can't be loaded: not a JSON object");
        for (const auto &[member, value] : dump.items())
            try {
                const SettingRow &row = find_setting(member);
                values.emplace_back(row, load_value(row, value));
            } catch (const HostError &error) {
                throw UsageError(join({name, " can't be loaded: ", member, ": ", error.what()}, ""));
            }
    } catch (const nlohmann::json::exception &error) {
        throw UsageError(name + " can't be loaded: not JSON");
    }
    change_settings(cli, "settings load", values);
}
