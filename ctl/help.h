#pragma once

#include <string>

#include "cli.h"
#include "contact.h"

// What the help and the manual tell, each once.

struct Note {
    std::string name;
    const char *description;
};

inline const std::vector<Note> EXIT_STATUSES = {
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

inline const std::vector<Note> ENVIRONMENT = {
    {"IME_BACKUP_HOST_DIR", "folder of all state; else ime-backup in $XDG_STATE_HOME or ~/.local/state"},
    {STORE_VARIABLE, "where the backups are, as --store"},
    {"IME_BACKUP_SERVICE", "the service's program, as --service"},
    {"SCIM_SOCKET_ADDRESS", "where the SCIM daemon listens, such as local:/run/user/1000/scim"},
    {"SCIM_SOCKET_TIMEOUT", "milliseconds that the SCIM daemon has to answer"},
    {"NO_COLOR", "no colours on a terminal"},
};

/// The help of the program, or of a command: at most 80 columns wide.
std::string help_of(const std::vector<const Command *> &path);
