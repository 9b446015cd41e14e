#pragma once

#include "cli.h"

// The functions behind the rows of commands.cpp.

void run_backup(Cli &cli);
void run_complete(Cli &cli);
void run_delete(Cli &cli);
void run_diff(Cli &cli);
void run_export(Cli &cli);
void run_help(Cli &cli);
void run_history(Cli &cli);
void run_import(Cli &cli);
void run_info(Cli &cli);
void run_list(Cli &cli);
void run_log(Cli &cli);
void run_prune(Cli &cli);
void run_restore(Cli &cli);
void run_settings(Cli &cli);
void run_settings_get(Cli &cli);
void run_settings_set(Cli &cli);
void run_settings_dump(Cli &cli);
void run_settings_load(Cli &cli);
void run_settings_unset(Cli &cli);
void run_show(Cli &cli);
void run_status(Cli &cli);
void run_trace(Cli &cli);
void run_undo(Cli &cli);
void run_verify(Cli &cli);
