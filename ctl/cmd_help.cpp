#include <sstream>

#include "cli.h"
#include "help.h"
#include "suggestion.h"

/// The command of this name below another.
static const CLI::App &find_command(const CLI::App &parent, const std::string &name)
{
    std::vector<std::string> names;
    for (const CLI::App *command : commands_of(parent)) {
        if (command->get_name() == name)
            return *command;
        names.push_back(command->get_name());
    }
    throw UsageError("there is no command \"" + name + "\"" + did_you_mean(name, names));
}

static void help(Cli &cli, const std::vector<std::string> &names)
{
    const CLI::App *command = &cli.app;
    for (const std::string &name : names)
        command = &find_command(*command, name);
    const std::string text = help_of(*command);
    cli.document.set("help", Json(text));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        cli.document.say(line);
}

void add_help(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"help", GROUP_HELP, "Explain a command", "", "ime-backupctl help restore"});
    const auto names = std::make_shared<std::vector<std::string>>();
    add_arguments(*command, LABEL_COMMAND, *names, "The command");
    command->callback([&cli, names] { help(cli, *names); });
}
