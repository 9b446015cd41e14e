#include <cstdio>

#include "commands.h"
#include "errors.h"
#include "format.h"
#include "ime_backup_operations.h"

int cmd_info(const ServiceOptions &options)
{
    const ExchangeReport report = run_exchange(options, OPERATION_GET_BACKUP_INFO);
    if (!report.succeeded)
        return EXIT_FAILED;
    for (const CloudRecord &record : report.records)
        printf("record %s  %s\n", record.key->c_str(), format_date(*record.date).c_str());
    return EXIT_DONE;
}
