#include "commands.h"
#include "setting.h"

void run_settings(Cli &cli)
{
    Table table{{{"name", ""}, {"value", ""}, {FOR_PEOPLE, ""}}, {}};
    table.is_keyed = true;
    table.remarks = Remarks::plain;
    const DeviceState state = open_device().read_all();
    for (const SettingRow &row : ALL_SETTINGS)
        table.rows.push_back({row.member, cell_of(row, state[index_of(row)]),
                              cli.has("--long") ? place_of(row) : std::string()});
    cli.document.set(table);
}

void run_settings_get(Cli &cli)
{
    const SettingRow &row = find_setting(cli.argument());
    const Cell value = cell_of(row, open_device().read_one(row));
    Table table{{{"name", FOR_SCRIPTS}, {"value", FOR_SCRIPTS}}, {{std::string(row.member), value}}};
    table.is_keyed = true;
    table.is_for_people = false;
    cli.document.set(table);
    cli.document.say(value.text);
}

using NewValues = std::vector<std::pair<SettingRow, DeviceValue>>;

/// Changes settings one after the other, once it is known that all can be changed.
static void change_settings(Cli &cli, const NewValues &values)
{
    cli.document.set_result(false);
    Device &device = open_device();
    for (const auto &[row, value] : values) {
        if (const std::string reason = device.refuses(row, value); !reason.empty())
            throw UsageError(std::string(row.member) + ": " + reason);
        device.require_writable(row);
    }
    std::vector<ChangedSetting> changed;
    const auto tell = [&](bool to_people) {
        Table table = table_of(changed);
        table.is_for_people = to_people;
        cli.document.set("settings", table);
    };
    try {
        for (const auto &[row, value] : values) {
            const DeviceValue before = device.read_one(row);
            device.write(row, value);
            changed.push_back({row, before, value});
        }
    } catch (...) {
        tell(true);
        throw;
    }
    cli.document.set_result(true);
    tell(false);
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
