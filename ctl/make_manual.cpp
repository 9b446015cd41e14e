// Fills the template of ime-backupctl's manual on standard input with the texts of the help, so that the two
// agree.

#include <iostream>
#include <map>

#include <glib.h>

#include "cli.h"
#include "setting.h"
#include "text.h"

static std::string escape_roff(const std::string &text)
{
    std::string escaped_text;
    for (const char c : text)
        escaped_text += c == '\\' ? std::string("\\e") : c == '-' ? std::string("\\-") : std::string(1, c);
    return (text.starts_with(".") || text.starts_with("'") ? "\\&" : "") + escaped_text;
}

/// Formats a paragraph: in a manual's source, each sentence begins a line.
static std::string paragraph(const std::string &text)
{
    static constexpr size_t WIDTH = 72;
    g_auto(GStrv) sentences = g_regex_split_simple("(?<=[.?!]) ", text.c_str(), {}, {});
    std::string lines;
    for (gchar **sentence = sentences; *sentence != nullptr; sentence++)
        for (const std::string &line : wrap(*sentence, WIDTH))
            lines += escape_roff(line) + "\n";
    return lines;
}

/// @param describe returns an item's macros and text
template <class Items, class Describe>
static std::string list(const Items &items, Describe describe)
{
    std::string text;
    for (const auto &item : items)
        text += ".It " + describe(item);
    return text.empty() ? "" : ".Bl -tag -width Ds\n" + text + ".El\n";
}

static std::string in_brackets(Times times, const std::string &macros)
{
    return is_required(times) ? " " + macros : " Oo " + macros + " Oc";
}

/// Such as "Fl q , Fl -quiet" or "Fl -timeout Ar SECONDS".
static std::string option_macros(const Option &option)
{
    return (option.letter == '\0' ? "Fl " : std::string("Fl ") + option.letter + " , Fl ") +
           (option.name + 1) + (option.value == nullptr ? "" : std::string(" Ar ") + option.value);
}

static std::string options_list(const std::vector<Option> &options)
{
    return list(options, [](const Option &option) {
        return option_macros(option) + "\n" + paragraph(std::string(option.description) + ".");
    });
}

static std::string describe(const Command &command, const std::string &parent)
{
    const std::string name = parent + command.name;
    std::string text = ".It Cm " + name;
    for (const Option &option : command.options)
        text += in_brackets(option.times, option_macros(option));
    for (const Argument &argument : command.arguments)
        text += in_brackets(argument.times, std::string("Ar ") + argument.label +
                                                (is_repeatable(argument.times) ? " ..." : ""));
    text += "\n" + paragraph(std::string(command.summary) + ".");
    if (*command.details != '\0')
        text += paragraph(command.details);
    text += options_list(command.options);
    for (const Command &subcommand : command.commands)
        text += describe(subcommand, name + " ");
    return text;
}

static std::string describe_commands()
{
    std::string text;
    std::string group;
    for (const Command *command : commands_below(PROGRAM)) {
        if (command->group != group)
            text += (group.empty() ? ".Ss " : ".El\n.Ss ") + std::string(command->group) +
                    "\n.Bl -tag -width Ds\n";
        group = command->group;
        text += describe(*command, "");
    }
    return text + ".El\n";
}

static std::string describe_examples(const Command &command)
{
    std::string text;
    for (const Command *subcommand : commands_below(command))
        text += paragraph(std::string(subcommand->summary) + ":") + ".Dl $ " +
                escape_roff(subcommand->example) + "\n" + describe_examples(*subcommand);
    return text;
}

static std::string describe_entries(const std::vector<HelpEntry> &entries, const std::string &macro)
{
    return list(entries, [&macro](const HelpEntry &entry) {
        return macro + entry.label + "\n" + paragraph(std::string(entry.description) + ".");
    });
}

static std::string describe_setting(const SettingRow &row)
{
    return std::string("Ic ") + row.member + "\n" + escape_roff(place_of(row)) + "\n";
}

int main()
{
    const std::map<std::string, std::string> parts = {
        {"@OS@", ".Os \"IME backup service " IME_BACKUP_VERSION "\"\n"},
        {"@COMMANDS@", describe_commands()},
        {"@OPTIONS@", options_list(PROGRAM.options)},
        {"@SETTINGS@", list(ALL_SETTINGS, describe_setting)},
        {"@ENVIRONMENT@", describe_entries(ENVIRONMENT, "Ev ")},
        {"@EXIT_STATUSES@", describe_entries(EXIT_STATUSES, "")},
        {"@EXAMPLES@", describe_examples(PROGRAM)},
    };
    for (std::string line; std::getline(std::cin, line);) {
        const auto part = parts.find(line);
        std::cout << (part == parts.end() ? line + "\n" : part->second);
    }
    return std::cin.eof() && std::cout.flush() ? EXIT_DONE : EXIT_FAILED;
}
