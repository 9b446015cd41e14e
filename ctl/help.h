#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "cloud_store.h"
#include "status.h"

// What the help and the manual tell, each once.

struct Note {
    std::string name;
    const char *meaning;
};

inline const Note EXIT_STATUSES[] = {
    {std::to_string(EXIT_DONE), "done"},
    {std::to_string(EXIT_FAILED),
     "failed; or, of diff, verify and restore --strict: not the same, or not all well"},
    {std::to_string(EXIT_USAGE), "wrong usage"},
    {std::to_string(EXIT_NO_PLATFORM),
     "the platform isn't there: no SCIM daemon, no active input method, or state that can't be used"},
    {std::to_string(EXIT_NO_BACKUP), "there is no such backup"},
    {std::to_string(EXIT_DAMAGED), "the backup is damaged"},
    {std::to_string(EXIT_TIMED_OUT), "the service, or a remote store, did not finish in time"},
    {std::to_string(EXIT_INTERRUPTED),
     "interrupted before there was a result; the message tells whether the device had been changed by then"},
};

inline const Note ENVIRONMENT[] = {
    {"IME_BACKUP_HOST_DIR", "folder of all state; else ime-backup in $XDG_STATE_HOME or ~/.local/state"},
    {STORE_VARIABLE, "where the backups are, as --store"},
    {"IME_BACKUP_SERVICE", "the service's program, as --service"},
    {"SCIM_SOCKET_ADDRESS", "where the SCIM daemon listens, such as local:/run/user/1000/scim"},
    {"SCIM_SOCKET_TIMEOUT", "milliseconds that the SCIM daemon has to answer"},
    {"NO_COLOR", "no colours on a terminal"},
};

/// A command's description, up to the first line feed, and what follows it.
std::string summary_of(const CLI::App &command);
std::string details_of(const CLI::App &command);

/// The command's name with those of the commands that it belongs to.
std::string full_name(const CLI::App &command);

/// How a command is called, such as "ime-backupctl show [OPTION]... [ID]".
std::string usage_of(const CLI::App &command);

/// An option as it is written, such as "--timeout SECONDS".
std::string label_of(const CLI::Option &option);

/// The commands that a person may use below another.
std::vector<const CLI::App *> commands_of(const CLI::App &command);

std::vector<const CLI::Option *> arguments_of(const CLI::App &command);
std::vector<const CLI::Option *> options_of(const CLI::App &command);
/// The options that only this command has.
std::vector<const CLI::Option *> own_options_of(const CLI::App &command);

/// The help of the program, or of a command: at most 80 columns wide.
std::string help_of(const CLI::App &command);
