#include "backups.h"
#include "orvanta_cloud_operations.h"

void make_backup(Cli &cli, bool if_changed)
{
    cli.document.set_result(false);
    const Outcome outcome =
        run_exchange(cli.service, {.operation = OPERATION_BACKUP, .if_changed = if_changed});
    const ExchangeReport &report = outcome.report;
    cli.status = outcome.status;
    cli.document.set_result(outcome.status == EXIT_DONE, report.reason);
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("stored", Json(report.stored));
    if (report.stored)
        cli.document.say(name_of(report.backup) + "  " + format_date(date_of(report.records)));
    else if (outcome.status == EXIT_DONE)
        cli.document.say(name_of(report.backup) + " holds the same settings; nothing was stored");
}

void add_backup(Cli &cli)
{
    auto *command = add_command(
        cli.app,
        {"backup", GROUP_BACKUPS, "Make a backup",
         "Has the service read the keyboard's settings, and stores them as a new backup. A switch that is "
         "not "
         "set is backed up as true, and a device without selected languages as one that selects English and "
         "Korean.",
         "ime-backupctl backup --if-changed"});
    const auto if_changed = std::make_shared<bool>(false);
    command->add_flag("--if-changed", *if_changed,
                      "Store nothing when the newest backup holds the same settings");
    command->callback([&cli, if_changed] { make_backup(cli, *if_changed); });
}
