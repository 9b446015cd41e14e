#include <cstdio>

#include "commands.h"
#include "device.h"
#include "errors.h"
#include "format.h"
#include "ime_backup_service.h"

int cmd_backup(const ServiceOptions &options)
{
    Device device;
    const Setting &keyboard = snapshot_settings().front();
    if (!keyboard.get(device, keyboard.key))
        throw PlatformError(
            std::string("no input method is active; choose one with: ime-backupctl settings set ") +
            keyboard.name + " IDENTIFIER");

    const ExchangeReport report = run_exchange(options, OPERATION_BACKUP);
    if (!report.succeeded)
        return EXIT_FAILED;
    printf("%s\n", format_backup(report.backup).c_str());
    return EXIT_DONE;
}
