// Help and completion.

#include <cstdio>
#include <iterator>
#include <sstream>

#include "cloud_store.h"
#include "commands.h"
#include "history.h"
#include "process.h"
#include "setting.h"
#include "text.h"
#include "trace_options.h"

static constexpr size_t WIDTH = 80;
static constexpr size_t LABEL_WIDTH = 26;

/// Returns a command's usage, such as "ime-backupctl show [OPTION]... [ID]".
static std::string usage_of(const std::vector<const Command *> &path)
{
    const Command &command = *path.back();
    std::string usage = join(names_of(path), " ") + " [OPTION]...";
    for (const Argument &argument : command.arguments) {
        const std::string label = std::string(argument.label) + (is_repeatable(argument.times) ? "..." : "");
        usage += " " + (is_required(argument.times) ? label : "[" + label + "]");
    }
    if (!command.commands.empty())
        usage += command.run == nullptr ? " COMMAND [ARGUMENT]..." : " [COMMAND [ARGUMENT]...]";
    return usage;
}

/// Formats a label with its description beside it.
static std::string entry(const std::string &label, const std::string &description)
{
    const std::string gap = "\n" + std::string(LABEL_WIDTH, ' ');
    const bool fits = label.size() + 4 <= LABEL_WIDTH;
    return "  " + label + (fits ? std::string(LABEL_WIDTH - 2 - label.size(), ' ') : gap) +
           join(wrap(description, WIDTH - LABEL_WIDTH), gap.c_str()) + "\n";
}

static std::string paragraph(const std::string &text)
{
    return join(wrap(text, WIDTH), "\n") + "\n";
}

template <class Labelled>
static std::string label_of(const Labelled &item)
{
    return item.label;
}

static std::string label_of(const Option &option)
{
    return (option.letter == '\0' ? "" : std::string{'-', option.letter} + ", ") + option.name +
           (option.value == nullptr ? "" : std::string(" ") + option.value);
}

/// Returns "" without items.
template <class Described>
static std::string section(const std::string &title, const std::vector<Described> &items)
{
    std::string text = items.empty() ? "" : "\n" + title + ":\n";
    for (const Described &item : items)
        text += entry(label_of(item), item.description);
    return text;
}

static std::string describe_commands(const Command &command)
{
    std::string text;
    std::string group;
    for (const Command *subcommand : commands_below(command)) {
        if (subcommand->group != group)
            text += "\n" + std::string(subcommand->group) + ":\n";
        group = subcommand->group;
        text += entry(subcommand->name, subcommand->summary);
    }
    return text;
}

std::string help_of(const std::vector<const Command *> &path)
{
    const Command &command = *path.back();
    const bool is_program = path.size() == 1;
    std::string text = paragraph(std::string(command.summary) + ".") + "\nUsage: " + usage_of(path) + "\n";
    if (*command.details != '\0')
        text += "\n" + paragraph(command.details);
    text += describe_commands(command) + section("Arguments", command.arguments);
    if (!is_program)
        text += section("Options", command.options);
    text += section("Options of all commands", PROGRAM.options);
    if (is_program)
        text += "\n" + paragraph("Settings: " + join(names_of_settings(), ", ") + ".") +
                section("Environment", ENVIRONMENT) + section("Exit status", EXIT_STATUSES);
    return text + "\nExample: " + command.example + "\n";
}

void run_help(Cli &cli)
{
    std::vector<const Command *> path{&PROGRAM};
    for (const std::string &name : cli.arguments)
        path.push_back(&find_command(*path.back(), name));
    const std::string text = help_of(path);
    cli.document.set("help", text);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        cli.document.say(line);
}

// Completion.

/// Asks the shell to complete the names of files.
static constexpr char FILES[] = ":files";

/// Limits how long completion waits for a remote store.
static constexpr double STORE_SECONDS = 2;

using Words = std::vector<std::string>;

static Words backup_numbers()
{
    Words numbers = {LATEST};
    limit_time(STORE_SECONDS);
    for (const BackupNumber number : open_store()->list().numbers)
        numbers.push_back(std::to_string(number));
    return numbers;
}

static Words entry_numbers()
{
    Words numbers;
    for (const HistoryEntry &entry : read_history())
        numbers.push_back(std::to_string(entry.number));
    return numbers;
}

static Words words_of(ValueKind kind, const Words &arguments)
{
    switch (kind) {
    case ValueKind::backup:
        return backup_numbers();
    case ValueKind::entry:
        return entry_numbers();
    case ValueKind::file:
        return {FILES};
    case ValueKind::command:
        return names_of(commands_below(PROGRAM));
    case ValueKind::function:
        return {std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS)};
    case ValueKind::setting_and_value:
        for (const SettingRow &row : ALL_SETTINGS)
            if (arguments.size() % 2 == 1 && arguments.back() == row.member)
                return is_switch(row) ? Words{"true", "false"} : Words();
        return arguments.size() % 2 == 1 ? Words() : names_of_settings();
    case ValueKind::setting:
        return names_of_settings();
    case ValueKind::text:
        break;
    }
    return {};
}

/// Returns the completions of "--option=".
static Words values_of(const Option &option, const std::string &prefix)
{
    Words words = words_of(option.kind, {});
    for (std::string &word : words)
        if (word != FILES)
            word.insert(0, prefix);
    return words;
}

/// Returns the words that may come next on a command line.
static Words next_words(const Cli &line, const std::string &typed)
{
    if (line.unfinished != nullptr)
        return words_of(line.unfinished->kind, {});
    if (typed.starts_with("-")) {
        const std::string name = typed.substr(0, typed.find('='));
        for (const Option *option : options_of(line.path))
            if (name != typed && option->name == name)
                return values_of(*option, name + "=");
        return names_of(options_of(line.path));
    }
    if (!line.command().commands.empty())
        return names_of(commands_below(line.command()));
    const Argument *next = argument_after(line.command(), line.arguments.size());
    return next == nullptr ? Words() : words_of(next->kind, line.arguments);
}

/// Restores the words as they were typed: bash also breaks words at colons and equals signs.
static Words rejoin(const Words &pieces)
{
    Words words;
    bool was_break = false;
    for (const std::string &piece : pieces) {
        const bool is_break = !piece.empty() && piece.find_first_not_of(":=") == std::string::npos;
        if (!words.empty() && (is_break || was_break))
            words.back() += piece;
        else
            words.push_back(piece);
        was_break = is_break;
    }
    return words;
}

void run_complete(Cli &cli)
{
    Words words = rejoin(cli.arguments);
    if (words.empty())
        words.emplace_back();
    const std::string typed = words.back();
    words.pop_back();
    Cli line;
    parse(line, words);
    for (const std::string &word : next_words(line, typed))
        if (word.starts_with(typed) || word == FILES)
            printf("%s\n", word.c_str());
}
