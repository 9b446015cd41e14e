#pragma once

#include <CLI/CLI.hpp>

#include "client.h"

/// The command line, and what the commands share of it.
struct Cli {
    CLI::App app{"Backs up and restores the settings of the on-screen keyboard.", "ime-backupctl"};
    ServiceOptions service;
    int status = EXIT_DONE; ///< left by the command that runs
};

// Each command adds itself: its name, its options and what it does.

void add_backup(Cli &cli);
void add_restore(Cli &cli);
void add_info(Cli &cli);
void add_list(Cli &cli);
void add_show(Cli &cli);
void add_settings(Cli &cli);

/// Adds the option for a backup's number.
void add_backup_id(CLI::App &command, std::string &id);
