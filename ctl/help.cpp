#include "help.h"

#include <algorithm>

#include "setting.h"
#include "text.h"

static constexpr size_t WIDTH = 80;
static constexpr size_t LABEL_WIDTH = 26;

std::string summary_of(const CLI::App &command)
{
    const std::string description = command.get_description();
    return description.substr(0, description.find('\n'));
}

std::string details_of(const CLI::App &command)
{
    const std::string description = command.get_description();
    const size_t end = description.find('\n');
    return end == std::string::npos ? "" : description.substr(end + 1);
}

/// What only completion asks has no description.
static bool is_hidden(const CLI::App *command)
{
    return command->get_description().empty();
}

static const CLI::App &root_of(const CLI::App &command)
{
    return command.get_parent() == nullptr ? command : root_of(*command.get_parent());
}

std::string full_name(const CLI::App &command)
{
    return (command.get_parent() == nullptr ? "" : full_name(*command.get_parent()) + " ") +
           command.get_name();
}

std::vector<const CLI::Option *> arguments_of(const CLI::App &command)
{
    return command.get_options([](const CLI::Option *option) { return option->get_positional(); });
}

std::vector<const CLI::Option *> options_of(const CLI::App &command)
{
    return command.get_options([](const CLI::Option *option) { return !option->get_positional(); });
}

std::vector<const CLI::Option *> own_options_of(const CLI::App &command)
{
    std::vector<const CLI::Option *> options = options_of(command);
    std::erase(options, command.get_help_ptr());
    return options;
}

std::vector<const CLI::App *> commands_of(const CLI::App &command)
{
    return command.get_subcommands([](const CLI::App *subcommand) { return !is_hidden(subcommand); });
}

std::string label_of(const CLI::Option &option)
{
    const std::string type = option.get_type_name();
    if (option.get_positional())
        return type.empty() ? option.get_name(true) : type;
    std::vector<std::string> names;
    for (const std::string &name : option.get_snames())
        names.push_back("-" + name);
    for (const std::string &name : option.get_lnames())
        names.push_back("--" + name);
    return join(names, ", ") + (type.empty() ? "" : " " + type);
}

static std::string usage_of(const CLI::Option &argument)
{
    const std::string label = label_of(argument) + (argument.get_items_expected_max() > 1 ? "..." : "");
    return " " + (argument.get_required() ? label : "[" + label + "]");
}

std::string usage_of(const CLI::App &command)
{
    std::string usage = full_name(command) + " [OPTION]...";
    for (const CLI::Option *argument : arguments_of(command))
        usage += usage_of(*argument);
    if (!commands_of(command).empty())
        usage += command.get_parent() == nullptr ? " COMMAND [ARGUMENT]..." : " [COMMAND [ARGUMENT]...]";
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

static std::string describe_options(const std::vector<const CLI::Option *> &options, const char *title)
{
    std::string text;
    for (const CLI::Option *option : options)
        text += entry(label_of(*option), option->get_description());
    return text.empty() ? "" : "\n" + std::string(title) + ":\n" + text;
}

static std::string describe_commands(const CLI::App &command)
{
    std::string text;
    std::string group;
    for (const CLI::App *subcommand : commands_of(command)) {
        if (text.empty() || subcommand->get_group() != group)
            text += "\n" + (subcommand->get_group().empty() ? "Commands" : subcommand->get_group()) + ":\n";
        group = subcommand->get_group();
        text += entry(subcommand->get_name(), summary_of(*subcommand));
    }
    return text;
}

template <size_t COUNT>
static std::string describe_notes(const Note (&notes)[COUNT], const char *title)
{
    std::string text = "\n" + std::string(title) + ":\n";
    for (const Note &note : notes)
        text += entry(note.name, note.meaning);
    return text;
}

/// What goes for all commands.
static std::string describe_surroundings()
{
    return "\n" + paragraph("Settings: " + join(names_of_settings(), ", ") + ".") +
           describe_notes(ENVIRONMENT, "Environment") + describe_notes(EXIT_STATUSES, "Exit status");
}

std::string help_of(const CLI::App &command)
{
    const bool is_program = command.get_parent() == nullptr;
    std::string text =
        paragraph(summary_of(command) + (is_program ? "" : ".")) + "\nUsage: " + usage_of(command) + "\n";
    if (!details_of(command).empty())
        text += "\n" + paragraph(details_of(command));
    text += describe_commands(command) + describe_options(arguments_of(command), "Arguments");
    if (!is_program)
        text += describe_options(own_options_of(command), "Options");
    text += describe_options(options_of(root_of(command)), "Options of all commands");
    if (is_program)
        text += describe_surroundings();
    if (!command.get_footer().empty())
        text += "\nExample: " + command.get_footer() + "\n";
    return text;
}
