#include <cstdio>

#include "cloud_store.h"
#include "commands.h"
#include "errors.h"

int cmd_show(const std::string &id)
{
    const CloudStore store;
    const guint64 number = store.find(id);
    try {
        for (const CloudRecord &record : decode_record_file(store.read(number)))
            printf("%s\n", record.value.value_or("").c_str());
    } catch (const HostError &error) {
        throw HostError("backup " + std::to_string(number) + " can't be shown: " + error.what());
    }
    return EXIT_DONE;
}
