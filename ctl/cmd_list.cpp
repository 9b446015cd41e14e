#include "backups.h"

static void list(Cli &cli)
{
    const auto store = open_store(cli.service.timeout_seconds);
    cli.document.set(inspect(*store, list_backups(*store)).table);
}

void add_list(Cli &cli)
{
    auto *command = add_command(cli.app, {"list", GROUP_BACKUPS, "List the backups, newest last",
                                          "Each is read and checked: of one that is damaged, it says why.",
                                          "ime-backupctl list"});
    command->callback([&cli] { list(cli); });
}
