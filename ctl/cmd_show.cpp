#include "backups.h"
#include "setting.h"
#include "snapshot.h"

static void show(Cli &cli, const std::string &id)
{
    const auto store = open_store(cli.service.timeout_seconds);
    const std::string text = snapshot_in(read_whole(*store, store->find(id)).records);
    const Snapshot snapshot = read_snapshot(text);
    Table table{{{"name", ""}, {"value", ""}}, {}};
    for (size_t i = 0; i < std::size(SETTINGS); i++)
        table.rows.push_back({SETTINGS[i].member, cell_of(SETTINGS[i], snapshot[i])});
    cli.document.set(table);
    cli.document.set_json(text);
}

void add_show(Cli &cli)
{
    auto *command = add_command(
        cli.app, {"show", GROUP_BACKUPS, "Show the settings in the newest backup, or in the one named",
                  "With --json it is the snapshot itself, byte for byte. Of a backup with several "
                  "records, it is that of the last one, which is in force after a restore.",
                  "ime-backupctl show 3"});
    const auto id = std::make_shared<std::string>();
    add_argument(*command, LABEL_ID, *id, "The backup's number");
    command->callback([&cli, id] { show(cli, *id); });
}
