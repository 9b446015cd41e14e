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

/// What was asked for makes no sense.
struct UsageError : HostError {
    using HostError::HostError;
};

/// There is no such entry in the history.
struct NoEntryError : HostError {
    using HostError::HostError;
};

// Words that go below an error.

inline constexpr char HINT_SCIM[] =
    "A SCIM daemon is started with: " SCIM_LAUNCHER " -d -c simple -e none -f socket";
inline constexpr char HINT_KEYBOARD[] =
    "One is chosen with: ime-backupctl settings set default_keyboard IDENTIFIER";

/// "; did you mean WORD?" for the known word that is nearest to a mistyped one, or nothing when none is near.
std::string did_you_mean(const std::string &typed, const std::vector<std::string> &known);

/// What an argument, or an option's value, is: completion offers words of this kind.
enum class Kind { text, backup, entry, file, setting, setting_and_value, command, function };

/// How often something may stand on a command line.
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
    Kind kind;
    Times times;
};

struct Option {
    const char *name; ///< with its dashes
    char letter;      ///< that stands for it behind one dash, or 0
    const char *description;
    const char *value = nullptr;                              ///< label of its value, if it takes one
    std::string (*check)(const std::string &value) = nullptr; ///< tells what is wrong with a value
    Kind kind = Kind::text;
    Times times = Times::at_most_once;
};

struct Command {
    const char *name;
    const char *group; ///< heading in the help; null for what the help leaves out
    const char *summary;
    const char *details; ///< what the summary leaves out
    const char *example;
    void (*run)(Cli &cli);
    std::vector<Argument> arguments{};
    std::vector<Option> options{};
    std::vector<Command> commands{};
};

/// The program, with the options that all commands have, and the table of commands.
extern const Command PROGRAM;

/// @throws UsageError when there is no command of this name below the other
const Command &find_command(const Command &parent, const std::string &name);

/// The commands that a person may use below another.
std::vector<const Command *> commands_below(const Command &command);

/// The place of the next argument after `count` of them; null when there is none.
const Argument *argument_after(const Command &command, size_t count);

/// A command line, and what its command leaves.
struct Cli {
    std::vector<const Command *> path{&PROGRAM}; ///< the last one is the command, those above it come first
    std::vector<std::string> arguments{};
    std::vector<std::pair<const Option *, std::string>> options{};
    const Option *unfinished = nullptr; ///< the option whose value is missing at the end

    bool quiet = false;
    bool writes_json = false; ///< the document, also for a person
    bool traces = false;      ///< the service's calls, on standard output
    std::string trace{};      ///< those calls, where they are compared instead

    Document document{};
    int status = EXIT_DONE;
    int failure_status = EXIT_FAILED; ///< of what went wrong for no reason that has a status of its own
    std::string log_tail{};           ///< told below a failure

    const Command &command() const { return *path.back(); }
    bool has(std::string_view option) const { return !values(option).empty(); }
    /// The values of an option, in their order.
    std::vector<std::string> values(std::string_view option) const;
    /// The last value of an option that is there.
    std::string value(std::string_view option) const { return values(option).back(); }
    /// The first argument, or an empty text.
    std::string argument() const { return arguments.empty() ? "" : arguments.front(); }
};

/// Reads a command line, up to the first word that is wrong, and takes over the options that all commands
/// have. What is missing is not looked for.
///
/// @throws UsageError
void parse(Cli &cli, const std::vector<std::string> &words);

/// @throws UsageError when something that the command needs is missing
void require_complete(const Cli &cli);

/// The options that may stand on a command line, the command's own first.
std::vector<const Option *> options_of(const std::vector<const Command *> &path);

template <class Named>
std::vector<std::string> names_of(const std::vector<const Named *> &things)
{
    std::vector<std::string> names;
    for (const Named *thing : things)
        names.emplace_back(thing->name);
    return names;
}

// What the service is asked for.

/// Below the state root: what the service logs when it isn't shown.
inline constexpr char SERVICE_LOG[] = "service.log";

/// Starts the service for one exchange, as the command line has it, and waits for both to end.
///
/// @param[in,out] cli its log_tail becomes the end of the service's log, when that came to no result
/// @param operation   such as #OPERATION_BACKUP
/// @param backup      number of the one to restore, or empty for the newest
/// @throws HostError when the service can't be started
ExchangeReport run_exchange(Cli &cli, const char *operation, const std::string &backup = "");

/// Waits until no exchange is under way.
///
/// @param is_only_looking when there has been none, no lock is made
/// @return the lock: none begins while it is held
/// @throws TimeoutError
FileLock wait_for_turn(bool is_only_looking);

/// Whether an exchange is under way, or a change of settings.
bool is_turn_taken();

// What the help and the manual tell, each once.

struct Note {
    std::string label;
    const char *description;
};

inline const std::vector<Note> EXIT_STATUSES = {
    {std::to_string(EXIT_DONE), "done"},
    {std::to_string(EXIT_FAILED),
     "failed; diff and trace --compare: different; verify: damaged; restore --strict: a setting differs"},
    {std::to_string(EXIT_USAGE), "wrong usage"},
    {std::to_string(EXIT_NO_PLATFORM),
     "the platform isn't there: no SCIM daemon, no active input method, or a backup or state that can't be "
     "used"},
    {std::to_string(EXIT_NO_BACKUP), "there is no such backup, or no such entry in the history"},
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
