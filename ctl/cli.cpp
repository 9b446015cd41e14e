#include "cli.h"

#include <algorithm>

#include <glib.h>

#include "process.h"
#include "shared_names.h"
#include "text.h"

static constexpr double DEFAULT_TIMEOUT = 30;

/// Returns the edit distance of two words; swapping two neighbours counts as one edit.
static size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::vector<size_t>> best(one.size() + 1, std::vector<size_t>(other.size() + 1));
    for (size_t i = 0; i <= one.size(); i++)
        for (size_t j = 0; j <= other.size(); j++) {
            size_t &here = best[i][j];
            here = i + j; // the distance from the empty word
            if (i > 0 && j > 0)
                here = std::min({best[i - 1][j] + 1, best[i][j - 1] + 1,
                                 best[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                here = std::min(here, best[i - 2][j - 2] + 1);
        }
    return best[one.size()][other.size()];
}

std::string did_you_mean(const std::string &typed, const std::vector<std::string> &known)
{
    g_autofree gchar *lower = g_ascii_strdown(typed.c_str(), -1);
    // An abbreviation counts as one mistake.
    const auto distance_to = [word = std::string(lower)](const std::string &candidate) {
        return word.size() > 1 && candidate.starts_with(word) ? 1 : distance(candidate, word);
    };
    const auto nearest =
        std::min_element(known.begin(), known.end(), [&](const auto &one, const auto &other) {
            return distance_to(one) < distance_to(other);
        });
    if (nearest == known.end() || distance_to(*nearest) > std::max(nearest->size() / 3, size_t{1}))
        return "";
    return "; did you mean " + *nearest + "?";
}

// Commands and options.

/// The names that other programs give to the commands.
static constexpr const char *OTHER_NAMES[][2] = {
    {"ls", "list"},      {"rm", "delete"},   {"remove", "delete"}, {"check", "verify"},
    {"forget", "prune"}, {"revert", "undo"}, {"save", "backup"},   {"compare", "diff"},
};

const Command &find_command(const Command &parent, const std::string &name)
{
    for (const Command &command : parent.commands)
        if (command.name == name)
            return command;
    std::string hint = did_you_mean(name, names_of(commands_below(parent)));
    for (const auto &[other, known] : OTHER_NAMES)
        if (name == other && &parent == &PROGRAM)
            hint = std::string("; did you mean ") + known + "?";
    throw UsageError("unknown command \"" + name + "\"" + hint);
}

std::vector<const Command *> commands_below(const Command &command)
{
    std::vector<const Command *> shown;
    for (const Command &subcommand : command.commands)
        if (subcommand.group != nullptr)
            shown.push_back(&subcommand);
    return shown;
}

const Argument *argument_after(const Command &command, size_t count)
{
    const std::vector<Argument> &arguments = command.arguments;
    if (count < arguments.size())
        return &arguments[count];
    return !arguments.empty() && is_repeatable(arguments.back().times) ? &arguments.back() : nullptr;
}

std::vector<std::string> Cli::values(std::string_view option) const
{
    std::vector<std::string> found;
    for (const auto &[known, value] : options)
        if (known->name == option)
            found.push_back(value);
    return found;
}

// The command line.

/// "-" and negative numbers are no options.
static bool is_option(const std::string &word)
{
    return word.size() > 1 && word[0] == '-' && g_ascii_isdigit(word[1]) == FALSE;
}

static void require_finished(const Cli &cli)
{
    if (cli.unfinished != nullptr)
        throw UsageError(std::string(cli.unfinished->name) + " requires a value");
}

static void add_option(Cli &cli, const Option &option, const std::string &value)
{
    if (option.value != nullptr && !is_repeatable(option.times) && cli.has(option.name))
        throw UsageError(std::string(option.name) + " is given twice");
    const std::string fault = option.check == nullptr ? "" : option.check(value);
    if (!fault.empty())
        throw UsageError(std::string(option.name) + ": " + fault);
    cli.options.emplace_back(&option, value);
}

/// @param name with one dash and a letter, or with two dashes
static const Option &find_option(const Cli &cli, const std::string &name, const std::string &word)
{
    const std::vector<const Option *> options = options_of(cli.path);
    for (const Option *option : options)
        if (option->name == name || name == std::string{'-', option->letter})
            return *option;
    throw UsageError("unknown option \"" + word + "\"" + did_you_mean(word, names_of(options)));
}

static void read_option(Cli &cli, const std::string &word)
{
    if (!word.starts_with("--")) {
        for (const char letter : word.substr(1))
            add_option(cli, find_option(cli, {'-', letter}, word), "");
        return;
    }
    const size_t end = word.find('=');
    const std::string name = word.substr(0, end);
    const Option &option = find_option(cli, name, name);
    if (option.value == nullptr && end != std::string::npos)
        throw UsageError(name + " takes no value");
    if (option.value != nullptr && end == std::string::npos)
        cli.unfinished = &option;
    else
        add_option(cli, option, option.value == nullptr ? "" : word.substr(end + 1));
}

static void read_argument(Cli &cli, const std::string &word)
{
    const Argument *argument = argument_after(cli.command(), cli.arguments.size());
    if (argument == nullptr)
        throw UsageError("unexpected argument \"" + word + "\"");
    if (word.empty() && argument->kind != ValueKind::text && argument->kind != ValueKind::setting_and_value)
        throw UsageError(std::string(argument->label) + ": must not be empty");
    cli.arguments.push_back(word);
}

void parse(Cli &cli, const std::vector<std::string> &words)
{
    bool options_may_follow = true;
    for (const std::string &word : words) {
        if (options_may_follow && is_option(word)) {
            require_finished(cli);
            if (word == "--")
                options_may_follow = false;
            else
                read_option(cli, word);
        } else if (cli.unfinished != nullptr) {
            add_option(cli, *std::exchange(cli.unfinished, nullptr), word);
        } else if (!cli.command().commands.empty()) {
            cli.path.push_back(&find_command(cli.command(), word));
        } else {
            read_argument(cli, word);
        }
    }
    cli.quiet = cli.has("--quiet");
    cli.writes_json = cli.has("--json");
    limit_time(cli.has("--timeout") ? std::stod(cli.value("--timeout")) : DEFAULT_TIMEOUT);
    if (cli.has("--store"))
        g_setenv(STORE_VARIABLE, cli.value("--store").c_str(), TRUE);
}

void require_complete(const Cli &cli)
{
    require_finished(cli);
    for (const Option *option : options_of(cli.path))
        if (is_required(option->times) && !cli.has(option->name))
            throw UsageError(std::string(option->name) + " is required");
    const std::vector<Argument> &arguments = cli.command().arguments;
    const size_t count = cli.arguments.size();
    if (count < arguments.size() && is_required(arguments[count].times))
        throw UsageError(std::string(arguments[count].label) + " is required");
}

std::vector<const Option *> options_of(const std::vector<const Command *> &path)
{
    std::vector<const Option *> options;
    for (size_t i = path.size(); i-- > 0;)
        for (const Option &option : path[i]->options)
            if (std::none_of(options.begin(), options.end(), [&option](const Option *known) {
                    return std::string_view(known->name) == option.name;
                }))
                options.push_back(&option);
    return options;
}
