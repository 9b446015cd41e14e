#include "help.h"

#include "setting.h"
#include "text.h"

static constexpr size_t WIDTH = 80;
static constexpr size_t LABEL_WIDTH = 26;

/// How a command is called, such as "ime-backupctl show [OPTION]... [ID]".
static std::string usage_of(const std::vector<const Command *> &path)
{
    const Command &command = *path.back();
    std::string usage = full_name(path) + " [OPTION]...";
    for (const Argument &argument : command.arguments) {
        const std::string label = std::string(argument.label) + (is_repeatable(argument.times) ? "..." : "");
        usage += " " + (is_required(argument.times) ? label : "[" + label + "]");
    }
    if (!command.commands.empty())
        usage += command.run == nullptr ? " COMMAND [ARGUMENT]..." : " [COMMAND [ARGUMENT]...]";
    return usage;
}

/// A label, and behind it the lines that explain it.
static std::string entry(const std::string &label, const std::string &meaning)
{
    std::string text = "  " + label;
    if (text.size() + 2 > LABEL_WIDTH)
        text += "\n" + std::string(LABEL_WIDTH, ' ');
    else
        text.append(LABEL_WIDTH - text.size(), ' ');
    return text + join(wrap(meaning, WIDTH - LABEL_WIDTH), ("\n" + std::string(LABEL_WIDTH, ' ')).c_str()) +
           "\n";
}

static std::string paragraph(const std::string &text)
{
    return join(wrap(text, WIDTH), "\n") + "\n";
}

static std::string section(const char *title, const std::string &entries)
{
    return entries.empty() ? "" : "\n" + std::string(title) + ":\n" + entries;
}

static std::string describe_arguments(const std::vector<Argument> &arguments)
{
    std::string text;
    for (const Argument &argument : arguments)
        text += entry(argument.label, argument.description);
    return section("Arguments", text);
}

static std::string describe_options(const std::vector<Option> &options, const char *title)
{
    std::string text;
    for (const Option &option : options)
        text += entry((option.letter == '\0' ? "" : std::string{'-', option.letter} + ", ") + option.name +
                          (option.value == nullptr ? "" : std::string(" ") + option.value),
                      option.description);
    return section(title, text);
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

static std::string describe_notes(const std::vector<Note> &notes, const char *title)
{
    std::string text;
    for (const Note &note : notes)
        text += entry(note.name, note.meaning);
    return section(title, text);
}

std::string help_of(const std::vector<const Command *> &path)
{
    const Command &command = *path.back();
    const bool is_program = path.size() == 1;
    std::string text = paragraph(std::string(command.summary) + ".") + "\nUsage: " + usage_of(path) + "\n";
    if (*command.details != '\0')
        text += "\n" + paragraph(command.details);
    text += describe_commands(command) + describe_arguments(command.arguments);
    if (!is_program)
        text += describe_options(command.options, "Options");
    text += describe_options(PROGRAM.options, "Options of all commands");
    if (is_program)
        text += "\n" + paragraph("Settings: " + join(names_of_settings(), ", ") + ".") +
                describe_notes(ENVIRONMENT, "Environment") + describe_notes(EXIT_STATUSES, "Exit status");
    return text + "\nExample: " + command.example + "\n";
}
