#include "help.h"

#include "setting.h"
#include "text.h"

static constexpr size_t WIDTH = 80;
static constexpr size_t LABEL_WIDTH = 26;

/// How a command is called, such as "ime-backupctl show [OPTION]... [ID]".
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

/// A label, and behind it the lines that explain it.
static std::string entry(const std::string &label, const std::string &description)
{
    std::string text = "  " + label;
    if (text.size() + 2 > LABEL_WIDTH)
        text += "\n" + std::string(LABEL_WIDTH, ' ');
    else
        text.append(LABEL_WIDTH - text.size(), ' ');
    return text +
           join(wrap(description, WIDTH - LABEL_WIDTH), ("\n" + std::string(LABEL_WIDTH, ' ')).c_str()) +
           "\n";
}

static std::string paragraph(const std::string &text)
{
    return join(wrap(text, WIDTH), "\n") + "\n";
}

static std::string label_of(const Argument &argument)
{
    return argument.label;
}

static std::string label_of(const Option &option)
{
    return (option.letter == '\0' ? "" : std::string{'-', option.letter} + ", ") + option.name +
           (option.value == nullptr ? "" : std::string(" ") + option.value);
}

static std::string label_of(const Note &note)
{
    return note.name;
}

/// Nothing where there is nothing to describe.
template <class Described>
static std::string section(const std::string &title, const std::vector<Described> &things)
{
    std::string text = things.empty() ? "" : "\n" + title + ":\n";
    for (const Described &thing : things)
        text += entry(label_of(thing), thing.description);
    return text;
}

static std::string describe_commands(const Command &command)
{
    std::string text;
    std::string group;
    for (const Command &subcommand : command.commands) {
        if (subcommand.group == nullptr)
            continue;
        if (subcommand.group != group)
            text += "\n" + std::string(subcommand.group) + ":\n";
        group = subcommand.group;
        text += entry(subcommand.name, subcommand.summary);
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
