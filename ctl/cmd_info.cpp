#include "backups.h"
#include "orvanta_cloud_operations.h"

void show_info(Cli &cli)
{
    cli.document.set_result(false);
    const Outcome outcome = run_exchange(cli.service, {.operation = OPERATION_GET_BACKUP_INFO});
    cli.status = outcome.status;
    cli.document.set_result(outcome.status == EXIT_DONE, outcome.report.reason);
    Table table{{{"key", ""}, {"date", ""}}, {}};
    for (const CloudRecord &record : outcome.report.records) {
        const std::string key = record.key.value_or("");
        const std::string date = record.date.value_or("");
        const auto milliseconds = parse_date(date);
        table.rows.push_back(
            {{key, "record " + key}, {milliseconds ? Json(*milliseconds) : Json(date), format_date(date)}});
    }
    cli.document.set("records", table);
}

void add_info(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"info", GROUP_DEVICE, "Show the keys and dates of what a backup would hold",
                              "Asks the service what it would back up now. Nothing is read or stored.",
                              "ime-backupctl info --json"});
    command->callback([&cli] { show_info(cli); });
}
