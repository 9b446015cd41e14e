#pragma once

#include <string>

#include "service.h"

// The commands. Each returns the exit status, or throws what went wrong.

int cmd_backup(const ServiceOptions &options);
int cmd_restore(const ServiceOptions &options, const std::string &id);
int cmd_info(const ServiceOptions &options);
int cmd_list();
int cmd_show(const std::string &id);
int cmd_settings();
int cmd_settings_set(const std::string &name, const std::string &value);
