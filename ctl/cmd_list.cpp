#include <cstdio>

#include "cloud_store.h"
#include "commands.h"
#include "errors.h"
#include "format.h"

int cmd_list()
{
    for (const std::string &id : CloudStore().ids())
        printf("%s\n", format_backup(id).c_str());
    return EXIT_DONE;
}
