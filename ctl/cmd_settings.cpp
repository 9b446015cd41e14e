#include <memory>

#include "cli.h"
#include "format.h"
#include "setting.h"

/// How this program reaches a setting.
static const DeviceAccess &access_to(const SettingRow &row)
{
    const DeviceAccess *access = device_access(row.place);
    if (access == nullptr)
        throw PlatformError(std::string("no library of the host keeps ") + row.member);
    return *access;
}

static int show_settings()
{
    std::vector<std::vector<std::string>> rows;
    for (const SettingRow &row : SETTINGS)
        rows.push_back({row.member, format_value(row, access_to(row).read(row)),
                        std::string(name_of(row.place)) + row.key});
    print_table(rows);
    return EXIT_DONE;
}

static int set_setting(const std::string &name, const std::string &text)
{
    const SettingRow &row = find_setting(name);
    const DeviceValue value = parse_value(row, text);
    try {
        access_to(row).write(row, value);
    } catch (const ValueError &error) {
        throw UsageError(error.what());
    }
    return EXIT_DONE;
}

void add_settings(Cli &cli)
{
    auto *command = cli.app.add_subcommand("settings", "Show the settings as they are now, or change one");
    auto *set = command->add_subcommand("set", "Change a setting");
    const auto name = std::make_shared<std::string>();
    const auto value = std::make_shared<std::string>();
    set->add_option("NAME", *name,
                    "The setting, as in a snapshot; also downloaded_lang and "
                    "downloaded_with_handwriting_lang")
        ->required();
    set->add_option("VALUE", *value,
                    "true or false; languages with commas between them; a keyboard's identifier")
        ->required();
    command->callback([&cli, set, name, value] {
        cli.status = set->parsed() ? set_setting(*name, *value) : show_settings();
    });
}
