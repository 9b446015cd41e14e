#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "document.h"
#include "errors.h"

struct Cli;

/// Exit statuses.
inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_FAILED = 1;
inline constexpr int EXIT_USAGE = 2;
inline constexpr int EXIT_NO_PLATFORM = 3;
inline constexpr int EXIT_NO_BACKUP = 4;
inline constexpr int EXIT_DAMAGED = 5;
inline constexpr int EXIT_TIMED_OUT = 124;
inline constexpr int EXIT_INTERRUPTED = 130;

/// What was asked for makes no sense.
struct UsageError : HostError {
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
enum class Kind { text, backup, file, setting, setting_and_value, command, function };

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
    bool traces = false; ///< the service's calls, on standard output
    double timeout_seconds = 30;

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
