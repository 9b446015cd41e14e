// ime-backupctl: makes, shows and restores backups of the keyboard's settings on a workstation.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "cli.h"
#include "help.h"
#include "process.h"
#include "suggestion.h"
#include "text.h"

static int fail(int status, const std::string &message, const char *hint = nullptr)
{
    fprintf(stderr, "ime-backupctl: %s\n", escaped(message).c_str());
    if (hint != nullptr)
        fprintf(stderr, "%s\n", hint);
    return status;
}

/// The command that was named last on the command line, or the program.
static const CLI::App &find_parsed(const CLI::App &app)
{
    const std::vector<CLI::App *> parsed = app.get_subcommands();
    return parsed.empty() ? app : find_parsed(*parsed.front());
}

static std::vector<std::string> names_like(const std::string &word, const CLI::App &command)
{
    std::vector<std::string> names;
    if (word.starts_with("-")) {
        for (const CLI::App *app = &command; app != nullptr; app = app->get_parent())
            for (const CLI::Option *option : app->get_options())
                for (const std::string &name : option->get_lnames())
                    names.push_back("--" + name);
    } else {
        for (const CLI::App *subcommand : commands_of(command))
            names.push_back(subcommand->get_name());
    }
    return names;
}

/// Tells what is wrong with the command line, and what may have been meant.
static int fail_to_parse(const CLI::App &app, const CLI::ParseError &error)
{
    const CLI::App &command = find_parsed(app);
    const std::vector<std::string> unknown = app.remaining(true);
    std::string message = error.what();
    if (!unknown.empty()) { // whatever else is wrong: it may be what is missing elsewhere
        const std::string &word = unknown.front();
        const std::vector<std::string> names = names_like(word, command);
        const char *kind = word.starts_with("-") ? "option" : "command";
        message = names.empty()
                      ? "there is no place for the argument \"" + word + "\""
                      : std::string("there is no ") + kind + " \"" + word + "\"" + did_you_mean(word, names);
    }
    return fail(EXIT_USAGE, message, ("\"" + full_name(command) + " --help\" tells more.").c_str());
}

static int run(Cli &cli, int argc, char **argv)
{
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::Success &help) {
        cli.quiet = true;
        return cli.app.exit(help);
    } catch (const CLI::ParseError &error) {
        return fail_to_parse(cli.app, error);
    }
    if (cli.app.get_subcommands().empty()) {
        fprintf(stderr, "%s", help_of(cli.app).c_str());
        return EXIT_USAGE;
    }
    return cli.status;
}

/// Tells of a failure, to the one who called, and in the document.
static int fail_in(Cli &cli, int status, const std::string &message, const char *hint = nullptr)
{
    if (cli.document.has_result())
        cli.document.set_result(false, message);
    return fail(status, message, hint);
}

static int run_and_tell(Cli &cli, int argc, char **argv)
{
    try {
        return run(cli, argc, argv);
    } catch (const UsageError &error) {
        return fail_in(cli, EXIT_USAGE, error.what());
    } catch (const DaemonError &error) {
        return fail_in(cli, EXIT_NO_PLATFORM, error.what(), HINT_SCIM);
    } catch (const PlatformError &error) {
        return fail_in(cli, EXIT_NO_PLATFORM, error.what());
    } catch (const NoBackupError &error) {
        return fail_in(cli, EXIT_NO_BACKUP, error.what(), HINT_BACKUP);
    } catch (const DamagedError &error) {
        return fail_in(cli, EXIT_DAMAGED, error.what());
    } catch (const TimeoutError &error) {
        return fail_in(cli, EXIT_TIMED_OUT, error.what());
    } catch (const InterruptedError &error) {
        return fail_in(cli, EXIT_INTERRUPTED, error.what());
    } catch (const ToldError &error) {
        return error.status == EXIT_FAILED ? cli.failure_status : error.status;
    } catch (const std::exception &error) {
        return fail_in(cli, cli.failure_status, error.what());
    }
}

static int run_program(int argc, char **argv)
{
    Cli cli;
    build_cli(cli);
    const int status = run_and_tell(cli, argc, argv);
    if (cli.service.trace && !cli.quiet)
        cli.document.print_text(stderr); // standard output has the trace
    else if (cli.json && !cli.quiet && !cli.document.is_empty())
        cli.document.print_json();
    else if (!cli.json && !cli.quiet)
        cli.document.print_text(stdout);

    errno = 0;
    if (!std::cout.flush() || fflush(stdout) != 0 || ferror(stdout) != 0)
        return fail(cli.failure_status, std::string("can't write to standard output: ") +
                                            (errno != 0 ? strerror(errno) : "some of it is lost"));
    return status;
}

int main(int argc, char **argv)
{
    prepare_process();
    try {
        return run_program(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "ime-backupctl: %s\n", error.what());
        return EXIT_FAILED;
    }
}
