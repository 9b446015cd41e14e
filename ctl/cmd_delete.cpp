#include "backups.h"

static void delete_backups(Cli &cli, const std::vector<std::string> &ids)
{
    const auto store = open_store(cli.service.timeout_seconds);
    find_backups(*store, store->list().numbers, ids); // a store that isn't there is none to lock
    delete_and_tell(cli.document, *store,
                    [&](const auto &known) { return find_backups(*store, known, ids); });
}

void add_delete(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"delete", GROUP_STORE, "Delete backups",
                              "If one of them isn't there, none is deleted. A backup's number is never "
                              "given to another.",
                              "ime-backupctl delete 1 2"});
    const auto ids = std::make_shared<std::vector<std::string>>();
    add_arguments(*command, LABEL_ID, *ids, "The backups' numbers")->required();
    command->callback([&cli, ids] { delete_backups(cli, *ids); });
}
