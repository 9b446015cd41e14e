#include "cli.h"
#include "format.h"
#include "ime_backup_operations.h"
#include "text.h"

static int info(const ServiceOptions &options)
{
    const Outcome outcome = run_exchange(options, OPERATION_GET_BACKUP_INFO);
    if (outcome.status == EXIT_DONE)
        for (const CloudRecord &record : outcome.report.records)
            printf("record %s  %s\n", escaped(record.key.value_or("")).c_str(),
                   format_date(record.date.value_or("")).c_str());
    return outcome.status;
}

void add_info(Cli &cli)
{
    cli.app.add_subcommand("info", "Show the keys and dates of what a backup would hold")->callback([&] {
        cli.status = info(cli.service);
    });
}
