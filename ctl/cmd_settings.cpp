#include "cli.h"
#include "setting.h"

static void show_settings(Cli &cli, bool with_places)
{
    begin_reading();
    Table table{{{"name", ""}, {"value", ""}, {FOR_PEOPLE, ""}}, {}};
    table.is_keyed = true;
    table.remarks = Remarks::plain;
    for (const SettingRow &row : all_settings())
        table.rows.push_back({row.member, cell_of(row, access_to(row).read(row)),
                              with_places ? place_of(row) : std::string()});
    cli.document.set(table);
}

static void get_setting(Cli &cli, const std::string &name)
{
    begin_reading();
    const SettingRow &row = find_setting(name);
    const Cell value = cell_of(row, access_to(row).read(row));
    Table table{{{"name", FOR_SCRIPTS}, {"value", FOR_SCRIPTS}}, {{std::string(row.member), value}}};
    table.is_keyed = true;
    table.is_for_people = false;
    cli.document.set(table);
    cli.document.say(value.text);
}

using NewValues = std::vector<std::pair<SettingRow, DeviceValue>>;

/// Changes settings one after the other, and adds each that is to what was changed.
static void write_values(const NewValues &values, std::vector<ChangedSetting> &changed)
{
    for (const auto &[row, value] : values) {
        const DeviceAccess &access = access_to(row);
        const DeviceValue before = access.read(row);
        try {
            access.write(row, value);
        } catch (const ValueError &error) {
            throw UsageError(std::string(row.member) + ": " + error.what());
        }
        changed.push_back({row, before, value});
    }
}

/// Finds out whether all can be changed, lest some are.
static void try_values(const NewValues &values)
{
    account().start({}, Account::Kind::trial);
    std::vector<ChangedSetting> ignored;
    write_values(values, ignored);
    account().finish();
}

static void change_settings(Cli &cli, const NewValues &values)
{
    cli.document.set_result(false);
    if (values.size() > 1)
        try_values(values);
    std::vector<ChangedSetting> changed;
    const auto tell = [&](bool to_people) {
        Table table = table_of(changed);
        table.is_for_people = to_people;
        cli.document.set("settings", table);
    };
    try {
        write_values(values, changed);
    } catch (...) {
        tell(true);
        throw;
    }
    cli.document.set_result(true);
    tell(false);
}

static void set_settings(Cli &cli, const std::vector<std::string> &pairs)
{
    NewValues values;
    for (size_t i = 0; i < pairs.size(); i += 2) {
        const SettingRow &row = find_setting(pairs[i]);
        if (i + 1 == pairs.size())
            throw UsageError(pairs[i] + " lacks a value");
        values.emplace_back(row, parse_value(row, pairs[i + 1]));
    }
    change_settings(cli, values);
}

static void unset_settings(Cli &cli, const std::vector<std::string> &names)
{
    NewValues values;
    for (const std::string &name : names)
        values.emplace_back(find_setting(name), std::nullopt);
    change_settings(cli, values);
}

static void add_get(Cli &cli, CLI::App &settings)
{
    auto *get =
        add_command(settings, {"get", "", "Show one setting", "Its value alone is shown, or \"(not set)\".",
                               "ime-backupctl settings get selected_lang"});
    const auto name = std::make_shared<std::string>();
    add_argument(*get, LABEL_SETTING, *name, "The setting")->required();
    get->callback([&cli, name] { get_setting(cli, *name); });
}

static void add_set(Cli &cli, CLI::App &settings)
{
    auto *set = add_command(
        settings,
        {"set", "", "Change settings",
         "A value is true or false (on or off, yes or no, 1 or 0) for a switch, languages with commas "
         "between them for a list, and an input method's identifier for default_keyboard.",
         "ime-backupctl settings set selected_lang en_US,ko_KR key_tap_sound off"});
    const auto pairs = std::make_shared<std::vector<std::string>>();
    set->add_option(LABEL_PAIR, *pairs, "A setting, and its new value")->required()->type_name("NAME VALUE");
    set->callback([&cli, pairs] { set_settings(cli, *pairs); });
}

static void add_unset(Cli &cli, CLI::App &settings)
{
    auto *unset =
        add_command(settings, {"unset", "", "Take settings' values away",
                               "A keyboard that was never changed has none: a setting that is not set is "
                               "at its default.",
                               "ime-backupctl settings unset prediction"});
    const auto names = std::make_shared<std::vector<std::string>>();
    add_arguments(*unset, LABEL_SETTING, *names, "The settings")->required();
    unset->callback([&cli, names] { unset_settings(cli, *names); });
}

void add_settings(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"settings", GROUP_DEVICE, "Show the settings as they are now, or change them",
                              "The two downloaded lists are no part of a backup: they decide what of one "
                              "a restore can bring back.",
                              "ime-backupctl settings --long"});
    const auto with_places = std::make_shared<bool>(false);
    command->add_flag("--long", *with_places,
                      "Show where the device keeps each setting, and under which key");
    command->require_subcommand(0, 1);
    command->callback([&cli, command, with_places] {
        if (command->get_subcommands().empty())
            show_settings(cli, *with_places);
    });
    for (const auto add : {add_get, add_set, add_unset})
        add(cli, *command);
}
