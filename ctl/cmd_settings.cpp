#include "commands.h"
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

using NewValues = std::vector<std::pair<SettingRow, DeviceValue>>;

/// Changes settings one after the other, once it is known that all can be changed. People are told only of a
/// failure, and what had been changed by then.
static void change_settings(Cli &cli, const NewValues &values)
{
    cli.document.set_result(false);
    Device &device = open_device();
    for (const auto &[row, value] : values) {
        if (const std::string reason = device.refuses(row, value); !reason.empty())
            throw UsageError(std::string(row.member) + ": " + reason);
        device.require_writable(row);
    }
    Table changed = CHANGES;
    cli.document.set("settings", changed);
    for (const auto &[row, value] : values) {
        const DeviceValue before = device.read_one(row);
        device.write(row, value);
        changed.rows.push_back({row.member, cell_of(row, before), cell_of(row, value)});
        cli.document.set("settings", changed);
    }
    device.make_durable();
    cli.document.set_result(true);
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
            throw UsageError(pairs[i] + " lacks a value");
        values.emplace_back(row, parse_value(row, pairs[i + 1]));
    }
    change_settings(cli, values);
}

void run_settings_unset(Cli &cli)
{
    NewValues values;
    for (const std::string &name : cli.arguments)
        values.emplace_back(find_setting(name), std::nullopt);
    change_settings(cli, values);
}
