#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "document.h"
#include "files.h"
#include "report.h"
#include "shared_names.h"

struct Cli;

/// Exit statuses.
enum : int {
    EXIT_DONE,
    EXIT_FAILED,
    EXIT_USAGE,
    EXIT_NO_PLATFORM,
    EXIT_NO_BACKUP,
    EXIT_DAMAGED,
    EXIT_TIMED_OUT = 124,
    EXIT_INTERRUPTED = 130
};

/// The command line makes no sense.
struct UsageError : HostError {
    using HostError::HostError;
};

/// The history has no such entry.
struct NoEntryError : HostError {
    using HostError::HostError;
};

// Hints below an error.

inline constexpr char HINT_SCIM[] =
    "Start a SCIM daemon with: " SCIM_LAUNCHER " -d -c simple -e none -f socket";
inline constexpr char HINT_KEYBOARD[] =
    "Choose one with: ime-backupctl settings set default_keyboard IDENTIFIER";

/// Returns "; did you mean WORD?" with the known word nearest to a mistyped one, or "" if none is near.
std::string did_you_mean(const std::string &typed, const std::vector<std::string> &known);

/// The kind of an argument, or of an option's value. Completion offers words of this kind.
enum class ValueKind { text, backup, entry, file, setting, setting_and_value, command, function };

/// How often an argument or an option may be given.
enum class Times { at_most_once, once, any, at_least_once };

constexpr bool is_required(Times times)
{
    return times == Times::once || times == Times::at_least_once;
}

constexpr bool is_repeatable(Times times)
{
    return times == Times::any || times == Times::at_least_once;
}

struct Argument {
    const char *label;
    const char *description;
    ValueKind kind;
    Times times;
};

struct Option {
    const char *name; ///< with its dashes
    char letter;      ///< of its short form, or 0
    const char *description;
    const char *value = nullptr;                              ///< label of its value, or null for a flag
    std::string (*check)(const std::string &value) = nullptr; ///< returns the fault of a value, or ""
    ValueKind kind = ValueKind::text;
    Times times = Times::at_most_once;
};

struct Command {
    const char *name;
    const char *group; ///< heading in the help; null hides the command
    const char *summary;
    const char *details;
    const char *example;
    void (*run)(Cli &cli);
    std::vector<Argument> arguments{};
    std::vector<Option> options{};
    std::vector<Command> commands{};
};

/// The program as the root of all commands. Its options are common to all.
extern const Command PROGRAM;

/// Returns the subcommand of this name.
///
/// @throws UsageError if there is none
const Command &find_command(const Command &parent, const std::string &name);

/// Returns the subcommands that are not hidden.
std::vector<const Command *> commands_below(const Command &command);

/// Returns the argument that follows `count` arguments, or null.
const Argument *argument_after(const Command &command, size_t count);

/// A command line, and the state and result of its command.
struct Cli {
    std::vector<const Command *> path{&PROGRAM}; ///< from the program down to the command
    std::vector<std::string> arguments{};
    std::vector<std::pair<const Option *, std::string>> options{};
    const Option *unfinished = nullptr; ///< the last option, if its value has not followed yet

    bool quiet = false;
    bool writes_json = false; ///< prints the document as JSON
    bool traces = false;      ///< traces the service
    std::string trace{};      ///< the trace, if it is compared rather than shown

    Document document{};
    int status = EXIT_DONE;
    int failure_status = EXIT_FAILED; ///< of errors that have no exit status of their own
    std::string log_tail{};           ///< printed below an error

    const Command &command() const { return *path.back(); }
    bool has(std::string_view option) const { return !values(option).empty(); }
    std::vector<std::string> values(std::string_view option) const;
    /// Returns the last value of an option that was given.
    std::string value(std::string_view option) const { return values(option).back(); }
    /// Returns the first argument, or "".
    std::string argument() const { return arguments.empty() ? "" : arguments.front(); }
};

/// Reads a command line up to the first fault, and applies the common options. A missing argument is no
/// fault: see require_complete().
///
/// @throws UsageError
void parse(Cli &cli, const std::vector<std::string> &words);

/// @throws UsageError if a required argument, option or value is missing
void require_complete(const Cli &cli);

/// Returns the options of a command: first its own, then those of its parents.
std::vector<const Option *> options_of(const std::vector<const Command *> &path);

template <class Named>
std::vector<std::string> names_of(const std::vector<const Named *> &items)
{
    std::vector<std::string> names;
    for (const Named *item : items)
        names.emplace_back(item->name);
    return names;
}

// Exchanges with the service.

/// The service's log, below the state root.
inline constexpr char SERVICE_LOG[] = "service.log";

/// Starts the service for one exchange, with the options of the command line, and waits until it ends.
///
/// @param[in,out] cli its log_tail gets the end of the service's log if the service reported no result
/// @param operation   such as #OPERATION_BACKUP
/// @param backup      number of the backup to restore, or "" for the newest
/// @throws HostError if the service can't be started
ExchangeReport run_exchange(Cli &cli, const char *operation, const std::string &backup = "");

/// Waits until no exchange and no change of settings is running, and locks out others.
///
/// @param read_only does not create the lock file: without one, nothing has run yet
/// @throws TimeoutError
FileLock lock_exchanges(bool read_only);

/// True while an exchange or a change of settings is running.
bool is_exchange_running();

// Texts of both the help and the manual.

struct HelpEntry {
    std::string label;
    const char *description;
};

inline const std::vector<HelpEntry> EXIT_STATUSES = {
    {std::to_string(EXIT_DONE), "done"},
    {std::to_string(EXIT_FAILED),
     "failed; diff and trace --compare: different; verify: damaged; restore --strict: a setting differs"},
    {std::to_string(EXIT_USAGE), "wrong usage"},
    {std::to_string(EXIT_NO_PLATFORM),
     "no SCIM daemon, no active input method, or a store, backup or state folder that can't be used"},
    {std::to_string(EXIT_NO_BACKUP), "no such backup or history entry"},
    {std::to_string(EXIT_DAMAGED), "the backup is damaged"},
    {std::to_string(EXIT_TIMED_OUT), "the service, or a remote store, did not finish in time"},
    {std::to_string(EXIT_INTERRUPTED),
     "interrupted before there was a result; the message says whether the device was changed"},
};

inline const std::vector<HelpEntry> ENVIRONMENT = {
    {"IME_BACKUP_HOST_DIR", "the state folder (default: ime-backup in $XDG_STATE_HOME or ~/.local/state)"},
    {STORE_VARIABLE, "where the backups are; --store overrides it"},
    {"IME_BACKUP_SERVICE", "the service's program; --service overrides it"},
    {"SCIM_SOCKET_ADDRESS", "where the SCIM daemon listens, such as local:/run/user/1000/scim"},
    {"SCIM_SOCKET_TIMEOUT", "milliseconds to wait for the SCIM daemon's answer"},
    {"NO_COLOR", "if set, no colours on a terminal"},
};

/// Returns the help of the program or of a command, at most 80 columns wide.
std::string help_of(const std::vector<const Command *> &path);
