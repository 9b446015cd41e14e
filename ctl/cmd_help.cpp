// The commands that tell of the others: to a person, and to the shell's completion.

#include <cstdio>
#include <iterator>
#include <sstream>

#include "cloud_store.h"
#include "commands.h"
#include "help.h"
#include "setting.h"
#include "trace_options.h"

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

// Completion: the words that may stand where one is being typed.

/// Told to the shell where a file's name may stand.
static constexpr char FILES[] = ":files";

/// As long as someone who types waits for a remote store.
static constexpr double STORE_SECONDS = 2;

using Words = std::vector<std::string>;

static Words backup_numbers()
{
    Words numbers;
    for (const BackupNumber number : open_store(STORE_SECONDS)->list().numbers)
        numbers.push_back(std::to_string(number));
    return numbers;
}

static Words values_of(const std::string &name)
{
    for (const SettingRow &row : ALL_SETTINGS)
        if (row.member == name && is_switch(row))
            return {"true", "false"};
    return {};
}

static Words words_of(Kind kind, const Words &arguments)
{
    switch (kind) {
    case Kind::backup:
        return backup_numbers();
    case Kind::file:
        return {FILES};
    case Kind::command:
        return names_of_commands(PROGRAM);
    case Kind::function:
        return {std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS)};
    case Kind::setting_and_value:
        return arguments.size() % 2 == 1 ? values_of(arguments.back()) : names_of_settings();
    case Kind::setting:
        return names_of_settings();
    case Kind::text:
        break;
    }
    return {};
}

/// What may come next on a command line.
static Words next_words(const Cli &line, const std::string &typed)
{
    if (line.unfinished != nullptr)
        return words_of(line.unfinished->kind, {});
    if (typed.starts_with("-"))
        return names_of(options_of(line.path));
    if (!line.command().commands.empty())
        return names_of_commands(line.command());
    const Argument *next = argument_after(line.command(), line.arguments.size());
    return next == nullptr ? Words() : words_of(next->kind, line.arguments);
}

/// The words as they were typed: bash breaks them at colons and equals signs, too.
static Words rejoin(const Words &pieces)
{
    Words words;
    bool goes_on = false;
    for (const std::string &piece : pieces) {
        const bool is_break = !piece.empty() && piece.find_first_not_of(":=") == std::string::npos;
        if (!words.empty() && (is_break || goes_on))
            words.back() += piece;
        else
            words.push_back(piece);
        goes_on = is_break;
    }
    return words;
}

void run_complete(Cli &cli)
{
    Words words = rejoin(cli.arguments);
    const std::string typed = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    Cli line;
    parse(line, words);
    for (const std::string &word : next_words(line, typed))
        if (word.starts_with(typed) || word == FILES)
            printf("%s\n", word.c_str());
}
