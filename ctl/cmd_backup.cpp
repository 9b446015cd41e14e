#include <cstdio>

#include "commands.h"
#include "device.h"
#include "errors.h"
#include "format.h"
#include "ime_backup_operations.h"

static void require_active_keyboard()
{
    Device device;
    if (!find_setting("default_keyboard").value(device))
        throw PlatformError(
            std::string("no input method is active; choose one with: ime-backupctl settings set ") +
            "default_keyboard IDENTIFIER");
}

int cmd_backup(const ServiceOptions &options)
{
    require_active_keyboard();

    const ExchangeReport report = run_exchange(options, OPERATION_BACKUP);
    if (!report.succeeded)
        return EXIT_FAILED;
    require_daemon_still("backup " + std::to_string(report.backup) +
                         " may hold defaults in place of settings");
    printf("%s\n", format_backup(report.backup).c_str());
    return EXIT_DONE;
}
