#pragma once

#include <CLI/CLI.hpp>

#include "client.h"
#include "cloud_store.h"
#include "document.h"

/// The command line, and what the commands share of it.
struct Cli {
    CLI::App app{"Backs up and restores the settings of the on-screen keyboard.", "ime-backupctl"};
    ServiceOptions service;
    bool json = false;
    bool quiet = false;

    // Left by the command that runs.
    Document document;
    int status = EXIT_DONE;
    int failure_status = EXIT_FAILED; ///< of what went wrong for no reason that has a status of its own
};

/// Adds the options that all commands have, and the commands.
void build_cli(Cli &cli);

/// Names the place of the store, to this program and to the service that it starts.
void choose_store(const std::string &location);

/// What the help and the manual say of a command, and what it does.
struct Command {
    const char *name;
    const char *group;
    const char *summary;
    const char *details; ///< what the summary leaves out
    const char *example;
};

inline constexpr char GROUP_BACKUPS[] = "Backups";
inline constexpr char GROUP_STORE[] = "The store of backups";
inline constexpr char GROUP_DEVICE[] = "The device";
inline constexpr char GROUP_HELP[] = "Help";

/// Adds a command to the program, or to another command.
CLI::App *add_command(CLI::App &parent, const Command &command);

// Each command adds itself: its name, its options and what it does.

void add_backup(Cli &cli);
void add_complete(Cli &cli);
void add_delete(Cli &cli);
void add_diff(Cli &cli);
void add_export(Cli &cli);
void add_help(Cli &cli);
void add_import(Cli &cli);
void add_info(Cli &cli);
void add_list(Cli &cli);
void add_prune(Cli &cli);
void add_restore(Cli &cli);
void add_settings(Cli &cli);
void add_show(Cli &cli);
void add_status(Cli &cli);
void add_trace(Cli &cli);
void add_undo(Cli &cli);
void add_verify(Cli &cli);

// What trace does, too.

struct RestoreOptions {
    std::string id;
    bool is_trial = false;
    bool is_strict = false;
};

void make_backup(Cli &cli, bool if_changed);
void restore(Cli &cli, const RestoreOptions &options);
void show_info(Cli &cli);

// Arguments that several commands have. Completion goes by their labels.

inline constexpr char LABEL_ID[] = "ID";
inline constexpr char LABEL_FILE[] = "FILE";
inline constexpr char LABEL_SETTING[] = "NAME";
inline constexpr char LABEL_PAIR[] = "PAIR"; ///< of a setting and its value
inline constexpr char LABEL_COMMAND[] = "COMMAND";
inline constexpr char OPTION_FAIL[] = "--fail";

/// An argument that is not empty.
CLI::Option *add_argument(CLI::App &command, const char *label, std::string &value, const char *description);
CLI::Option *add_arguments(CLI::App &command, const char *label, std::vector<std::string> &values,
                           const char *description);
