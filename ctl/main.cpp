// ime-backupctl: makes, shows and restores backups of the keyboard's settings on a workstation.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "help.h"
#include "process.h"
#include "text.h"

static int fail(int status, const std::string &message, const char *hint = nullptr)
{
    fprintf(stderr, "ime-backupctl: %s\n", escaped(message).c_str());
    if (hint != nullptr)
        fprintf(stderr, "%s\n", hint);
    return status;
}

static int run(Cli &cli, const std::vector<std::string> &words)
{
    try {
        parse(cli, words);
        if (cli.has("--help") || cli.has("--version")) {
            printf("%s", cli.has("--help") ? help_of(cli.path).c_str() : IME_BACKUP_VERSION "\n");
            return EXIT_DONE;
        }
        require_complete(cli);
    } catch (const UsageError &error) {
        return fail(EXIT_USAGE, error.what(), ("\"" + full_name(cli.path) + " --help\" tells more.").c_str());
    }
    if (cli.command().run == nullptr) {
        fprintf(stderr, "%s", help_of(cli.path).c_str());
        return EXIT_USAGE;
    }
    apply_common_options(cli);
    cli.command().run(cli);
    return cli.status;
}

/// Tells of a failure, to the one who called, and in the document.
static int fail_in(Cli &cli, int status, const std::string &message, const char *hint = nullptr)
{
    if (cli.document.has_result())
        cli.document.set_result(false, message);
    fail(status, message, hint);
    fprintf(stderr, "%s", cli.log_tail.c_str());
    return status;
}

static int run_and_tell(Cli &cli, const std::vector<std::string> &words)
{
    try {
        return run(cli, words);
    } catch (const UsageError &error) {
        return fail_in(cli, EXIT_USAGE, error.what());
    } catch (const DaemonError &error) {
        return fail_in(cli, EXIT_NO_PLATFORM, error.what(), HINT_SCIM);
    } catch (const KeyboardError &error) {
        return fail_in(cli, EXIT_NO_PLATFORM, error.what(), HINT_KEYBOARD);
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
    } catch (const std::exception &error) {
        return fail_in(cli, cli.failure_status, error.what());
    }
}

static int run_program(int argc, char **argv)
{
    Cli cli;
    const int status = run_and_tell(cli, {argv + std::min(argc, 1), argv + argc});
    if (cli.service.trace && !cli.quiet)
        cli.document.print_text(stderr); // standard output has the trace
    else if (cli.json && !cli.quiet && !cli.document.is_empty())
        cli.document.print_json();
    else if (!cli.json && !cli.quiet)
        cli.document.print_text(stdout);

    errno = 0;
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
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
