// ime-backupctl: makes, shows and restores backups of the keyboard's settings on a workstation.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <regex>

#include "cli.h"
#include "process.h"
#include "text.h"

void add_backup_id(CLI::App &command, std::string &id)
{
    command.add_option("ID", id, "The backup's number")->check([](const std::string &text) -> std::string {
        return text.empty() ? "it is empty" : "";
    });
}

static std::string check_seconds(const std::string &text)
{
    static const std::regex decimal("[0-9]{1,5}(\\.[0-9]{1,3})?");
    if (!std::regex_match(text, decimal) || std::stod(text) < 0.1 || std::stod(text) > 86'400)
        return "not between 0.1 and 86400 seconds: " + text;
    return "";
}

static void add_service_options(Cli &cli)
{
    cli.service.program = default_service_program();
    cli.app.add_flag("-v,--verbose", cli.service.verbose, "Show the service's log as it runs");
    cli.app.add_option("--timeout", cli.service.timeout_seconds, "Seconds to wait for the service")
        ->check(check_seconds)
        ->capture_default_str();
    cli.app.add_option("--service", cli.service.program, "The service's program")
        ->envname("IME_BACKUP_SERVICE")
        ->check([](const std::string &text) -> std::string { return text.empty() ? "it is empty" : ""; });
}

static int run(int argc, char **argv)
{
    Cli cli;
    cli.app.require_subcommand(0, 1);
    cli.app.fallthrough();
    cli.app.set_version_flag("--version", IME_BACKUP_VERSION);
    cli.app.footer("Exit status: 0 done, 1 failed, 2 wrong usage, 3 the platform isn't there, 130 "
                   "interrupted.\n");
    add_service_options(cli);
    for (const auto add_command : {add_backup, add_restore, add_info, add_list, add_show, add_settings})
        add_command(cli);

    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return cli.app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (cli.app.get_subcommands().empty()) {
        fprintf(stderr, "%s", cli.app.help().c_str());
        return EXIT_USAGE;
    }
    return cli.status;
}

static int fail(int status, const std::string &message, const char *hint = nullptr)
{
    fprintf(stderr, "ime-backupctl: %s\n", escaped(message).c_str());
    if (hint != nullptr)
        fprintf(stderr, "%s\n", hint);
    return status;
}

static int run_and_tell(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const UsageError &error) {
        return fail(EXIT_USAGE, error.what());
    } catch (const DaemonError &error) {
        return fail(EXIT_NO_PLATFORM, error.what(), HINT_SCIM);
    } catch (const PlatformError &error) {
        return fail(EXIT_NO_PLATFORM, error.what());
    } catch (const NoBackupError &error) {
        return fail(EXIT_FAILED, error.what(), HINT_BACKUP);
    } catch (const std::exception &error) {
        return fail(EXIT_FAILED, error.what());
    }
}

int main(int argc, char **argv)
{
    prepare_process();
    const int status = run_and_tell(argc, argv);
    errno = 0;
    if (!std::cout.flush() || fflush(stdout) != 0 || ferror(stdout) != 0)
        return fail(EXIT_FAILED, std::string("can't write to standard output: ") +
                                     (errno != 0 ? strerror(errno) : "some of it is lost"));
    return status;
}
