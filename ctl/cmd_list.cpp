#include <cstdio>

#include "cloud_store.h"
#include "commands.h"
#include "errors.h"
#include "format.h"

int cmd_list()
{
    for (const guint64 number : CloudStore().numbers())
        printf("%s\n", format_backup(number).c_str());
    return EXIT_DONE;
}
