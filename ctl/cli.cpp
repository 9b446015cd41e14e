#include "cli.h"

#include <regex>

#include <glib.h>

#include "help.h"

static std::string check_filled(const std::string &text)
{
    return text.empty() ? "it is empty" : "";
}

static std::string check_seconds(const std::string &text)
{
    static const std::regex decimal("[0-9]{1,5}(\\.[0-9]{1,3})?");
    if (!std::regex_match(text, decimal) || std::stod(text) < 0.1 || std::stod(text) > 86'400)
        return "not between 0.1 and 86400 seconds: " + text;
    return "";
}

CLI::App *add_command(CLI::App &parent, const Command &command)
{
    const std::string details(command.details);
    CLI::App *added = parent.add_subcommand(command.name, std::string(command.summary) +
                                                              (details.empty() ? "" : "\n" + details));
    added->group(command.group);
    added->footer(command.example);
    added->set_help_flag("-h,--help", "Show help");
    return added;
}

CLI::Option *add_argument(CLI::App &command, const char *label, std::string &value, const char *description)
{
    return command.add_option(label, value, description)->type_name("")->check(check_filled);
}

CLI::Option *add_arguments(CLI::App &command, const char *label, std::vector<std::string> &values,
                           const char *description)
{
    return command.add_option(label, values, description)->type_name("")->check(check_filled);
}

void choose_store(const std::string &location)
{
    g_setenv(STORE_VARIABLE, location.c_str(), TRUE);
}

static void add_common_options(Cli &cli)
{
    CLI::App &app = cli.app;
    app.add_flag("--json", cli.json, "Write one JSON document, for scripts");
    app.add_flag("-q,--quiet", cli.quiet, "Write nothing but errors");
    app.add_flag("-v,--verbose", cli.service.verbose, "Show the service's log as it runs");
    app.add_option("--timeout", cli.service.timeout_seconds,
                   "How long to wait for the service, or a remote store (30)")
        ->type_name("SECONDS")
        ->check(check_seconds);
    app.add_option_function<std::string>("--store", choose_store,
                                         "Where the backups are: a folder, or a remote place such as "
                                         "rclone:s3:desk; else cloud in the folder of all state")
        ->type_name("LOCATION")
        ->check(check_filled);
    cli.service.program = default_service_program();
    app.add_option("--service", cli.service.program, "The service's program")
        ->type_name("PROGRAM")
        ->envname("IME_BACKUP_SERVICE")
        ->check(check_filled);
}

void build_cli(Cli &cli)
{
    cli.app.set_help_flag(); // until the commands are there: else each would have one of its own
    cli.app.require_subcommand(0, 1);
    cli.app.fallthrough();
    cli.app.footer("ime-backupctl restore --dry-run");
    cli.app.formatter_fn(
        [](const CLI::App *command, const std::string &, CLI::AppFormatMode) { return help_of(*command); });
    add_common_options(cli);
    for (const auto add :
         {add_backup, add_restore, add_undo, add_list, add_show, add_diff, add_verify, add_delete, add_prune,
          add_export, add_import, add_settings, add_status, add_info, add_trace, add_help, add_complete})
        add(cli);
    cli.app.set_help_flag("-h,--help", "Show help");
    cli.app.set_version_flag("--version", IME_BACKUP_VERSION, "Show the version");
}
