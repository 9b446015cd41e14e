#include "backups.h"

static void verify(Cli &cli, const std::vector<std::string> &ids)
{
    const auto store = open_store(cli.service.timeout_seconds);
    const Inspection inspection = inspect(
        *store, ids.empty() ? list_backups(*store) : find_backups(*store, store->list().numbers, ids));
    cli.document.set(inspection.table);
    const size_t count = inspection.table.rows.size();
    cli.document.say(std::to_string(count) + (count == 1 ? " backup, " : " backups, ") +
                     std::to_string(inspection.damaged) + " damaged");
    cli.status = inspection.damaged == 0 ? EXIT_DONE : EXIT_FAILED;
}

void add_verify(Cli &cli)
{
    auto *command = add_command(
        cli.app,
        {"verify", GROUP_STORE, "Check all backups, or those named",
         "Reads each backup and checks that it is what was written, and that its records hold snapshots. "
         "The exit status is 1 if one is damaged.",
         "ime-backupctl verify"});
    const auto ids = std::make_shared<std::vector<std::string>>();
    add_arguments(*command, LABEL_ID, *ids, "The backups' numbers");
    command->callback([&cli, ids] { verify(cli, *ids); });
}
