#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "device.h"
#include "errors.h"

int cmd_settings()
{
    Device device;
    size_t width = 0;
    std::vector<std::string> values;
    for (const Setting &setting : snapshot_settings()) {
        values.push_back(setting.value(device).value_or("(not set)"));
        width = std::max(width, values.back().size());
    }
    for (size_t i = 0; i < values.size(); i++) {
        const Setting &setting = snapshot_settings()[i];
        printf("%-18s%-*s  %s: %s\n", setting.name, static_cast<int>(width), values[i].c_str(), setting.place,
               setting.key);
    }
    return EXIT_DONE;
}

int cmd_settings_set(const std::string &name, const std::string &value)
{
    const Setting &setting = find_setting(name);
    Device device;
    setting.set(device, setting.key, value);
    return EXIT_DONE;
}
