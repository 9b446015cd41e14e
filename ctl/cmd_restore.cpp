#include <cstdio>

#include "cloud_store.h"
#include "commands.h"
#include "device.h"
#include "errors.h"
#include "ime_backup_operations.h"

int cmd_restore(const ServiceOptions &options, const std::string &id)
{
    const std::string backup = std::to_string(CloudStore().find(id));
    require_device();

    const ExchangeReport report = run_exchange(options, OPERATION_RESTORE, backup);
    for (const CloudRecord &record : report.records)
        printf("record %s  %s\n", record.key->c_str(), record.failed ? "failed" : "restored");
    if (!report.succeeded)
        return EXIT_FAILED;
    require_daemon_still("some settings may not be restored");
    printf("backup %s  restored\n", backup.c_str());
    return EXIT_DONE;
}
