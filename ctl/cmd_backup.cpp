#include "cli.h"
#include "format.h"
#include "ime_backup_operations.h"

static int backup(const ServiceOptions &options)
{
    const Outcome outcome = run_exchange(options, OPERATION_BACKUP);
    if (outcome.status == EXIT_DONE)
        printf("%s\n", describe_backup(CloudStore(), outcome.report.backup).c_str());
    return outcome.status;
}

void add_backup(Cli &cli)
{
    cli.app.add_subcommand("backup", "Make a backup")->callback([&] { cli.status = backup(cli.service); });
}
