// Writes ime-backupctl's manual: a template, with what the help tells in it. So the two can't differ.

#include <cstdio>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "cli.h"
#include "help.h"
#include "setting.h"
#include "text.h"

/// The text, with nothing in it that the formatter obeys.
static std::string plain(const std::string &text)
{
    std::string escaped_text;
    for (const char c : text)
        escaped_text += c == '\\' ? std::string("\\e") : c == '-' ? std::string("\\-") : std::string(1, c);
    return (text.starts_with(".") || text.starts_with("'") ? "\\&" : "") + escaped_text;
}

/// A paragraph: in a manual's source, each sentence begins a line.
static std::string paragraph(const std::string &text)
{
    static constexpr size_t WIDTH = 72;
    static const std::regex sentence_end("([.?!]) ");
    std::istringstream sentences(std::regex_replace(text, sentence_end, "$1\n"));
    std::string lines;
    for (std::string sentence; std::getline(sentences, sentence);)
        for (const std::string &line : wrap(sentence, WIDTH))
            lines += plain(line) + "\n";
    return lines;
}

static std::string in_list(const std::string &items)
{
    return items.empty() ? "" : ".Bl -tag -width Ds\n" + items + ".El\n";
}

/// Such as "Fl q , Fl -quiet" or "Fl -timeout Ar SECONDS".
static std::string option_macros(const CLI::Option &option)
{
    std::string macros;
    for (const std::string &name : option.get_snames())
        macros += " Fl " + name + " ,";
    for (const std::string &name : option.get_lnames())
        macros += " Fl -" + name;
    const std::string type = option.get_type_name();
    return macros.substr(1) + (type.empty() ? "" : " Ar " + type);
}

static std::string options_list(const std::vector<const CLI::Option *> &options)
{
    std::string items;
    for (const CLI::Option *option : options)
        items += ".It " + option_macros(*option) + "\n" + paragraph(option->get_description() + ".");
    return in_list(items);
}

static std::string optional(const CLI::Option &option, const std::string &macros)
{
    return option.get_required() ? " " + macros : " Oo " + macros + " Oc";
}

static std::string argument_macros(const CLI::Option &argument)
{
    const std::string dots = argument.get_items_expected_max() > 1 ? " ..." : "";
    return optional(argument, "Ar " + label_of(argument) + dots);
}

static std::string describe(const CLI::App &command)
{
    std::string name = command.get_name();
    if (command.get_parent()->get_parent() != nullptr)
        name = command.get_parent()->get_name() + " " + name;
    std::string heading = ".It Cm " + name;
    for (const CLI::Option *option : own_options_of(command))
        heading += optional(*option, option_macros(*option));
    for (const CLI::Option *argument : arguments_of(command))
        heading += argument_macros(*argument);
    std::string text = heading + "\n" + paragraph(summary_of(command) + ".");
    if (!details_of(command).empty())
        text += paragraph(details_of(command));
    text += options_list(own_options_of(command));
    for (const CLI::App *subcommand : commands_of(command))
        text += describe(*subcommand);
    return text;
}

static std::string describe_commands(const CLI::App &program)
{
    std::string text;
    std::string items;
    std::string group;
    for (const CLI::App *command : commands_of(program)) {
        if (command->get_group() != group) {
            text += in_list(items) + ".Ss " + command->get_group() + "\n";
            items.clear();
        }
        group = command->get_group();
        items += describe(*command);
    }
    return text + in_list(items);
}

static std::string describe_examples(const CLI::App &command)
{
    std::string text;
    for (const CLI::App *subcommand : commands_of(command))
        text += paragraph(summary_of(*subcommand) + ":") + ".Dl $ " + plain(subcommand->get_footer()) + "\n" +
                describe_examples(*subcommand);
    return text;
}

static std::string describe_settings()
{
    std::string items;
    for (const SettingRow &row : all_settings())
        items += ".It Ic " + std::string(row.member) + "\n" + plain(place_of(row)) + "\n";
    return in_list(items);
}

template <size_t COUNT>
static std::string describe_notes(const Note (&notes)[COUNT], const char *macro)
{
    std::string items;
    for (const Note &note : notes)
        items += ".It " + std::string(macro) + note.name + "\n" + paragraph(std::string(note.meaning) + ".");
    return in_list(items);
}

static int make_manual(const char *template_file, const char *manual_file)
{
    Cli cli;
    build_cli(cli);
    const std::map<std::string, std::string> parts = {
        {"@OS@", ".Os \"IME backup service " IME_BACKUP_VERSION "\"\n"},
        {"@COMMANDS@", describe_commands(cli.app)},
        {"@OPTIONS@", options_list(options_of(cli.app))},
        {"@SETTINGS@", describe_settings()},
        {"@ENVIRONMENT@", describe_notes(ENVIRONMENT, "Ev ")},
        {"@EXIT_STATUSES@", describe_notes(EXIT_STATUSES, "")},
        {"@EXAMPLES@", describe_examples(cli.app)},
    };
    std::ifstream manual_template(template_file);
    std::ofstream manual(manual_file);
    for (std::string line; std::getline(manual_template, line);) {
        const auto part = parts.find(line);
        manual << (part == parts.end() ? line + "\n" : part->second);
    }
    return manual_template.eof() && manual.flush() ? EXIT_DONE : EXIT_FAILED;
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "Usage: make-manual TEMPLATE MANUAL\n");
        return EXIT_USAGE;
    }
    try {
        return make_manual(argv[1], argv[2]);
    } catch (const std::exception &error) {
        fprintf(stderr, "make-manual: %s\n", error.what());
        return EXIT_FAILED;
    }
}
