// ime-backupctl: makes, shows and restores backups of the keyboard's settings on a workstation.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cloud_store.h"
#include "commands.h"
#include "process.h"
#include "text.h"

/// Reports an error on standard error and in the document, and returns the exit status.
static int fail(Cli &cli, int status, const std::string &message, const std::string &hint = "")
{
    if (cli.document.has_result())
        cli.document.set_result(false, message);
    fprintf(stderr, "ime-backupctl: %s\n", escaped(message).c_str());
    if (!hint.empty())
        fprintf(stderr, "%s\n", hint.c_str());
    fprintf(stderr, "%s", std::exchange(cli.log_tail, "").c_str());
    return status;
}

static int run(Cli &cli, const std::vector<std::string> &words)
{
    bool is_understood = false;
    try {
        parse(cli, words);
        if (cli.has("--help") || cli.has("--version")) {
            printf("%s", cli.has("--help") ? help_of(cli.path).c_str() : IME_BACKUP_VERSION "\n");
            return EXIT_DONE;
        }
        require_complete(cli);
        is_understood = true;
        if (cli.command().run != nullptr) {
            cli.command().run(cli);
            return cli.status;
        }
        fprintf(stderr, "%s", help_of(cli.path).c_str());
        return EXIT_USAGE;
    } catch (const UsageError &error) {
        const std::string hint = "Try \"" + join(names_of(cli.path), " ") + " --help\".";
        return fail(cli, EXIT_USAGE, error.what(), is_understood ? "" : hint);
    } catch (const DaemonError &error) {
        return fail(cli, EXIT_NO_PLATFORM, error.what(), HINT_SCIM);
    } catch (const KeyboardError &error) {
        return fail(cli, EXIT_NO_PLATFORM, error.what(), HINT_KEYBOARD);
    } catch (const PlatformError &error) {
        return fail(cli, EXIT_NO_PLATFORM, error.what());
    } catch (const NoBackupError &error) {
        return fail(cli, EXIT_NO_BACKUP, error.what(),
                    R"("ime-backupctl list" shows the backups; "ime-backupctl backup" makes one.)");
    } catch (const NoEntryError &error) {
        return fail(cli, EXIT_NO_BACKUP, error.what(), R"("ime-backupctl history" shows the entries.)");
    } catch (const DamagedError &error) {
        return fail(cli, EXIT_DAMAGED, error.what());
    } catch (const TimeoutError &error) {
        return fail(cli, EXIT_TIMED_OUT, error.what());
    } catch (const InterruptedError &error) {
        return fail(cli, EXIT_INTERRUPTED, error.what());
    } catch (const std::exception &error) {
        return fail(cli, cli.failure_status, error.what());
    }
}

int main(int argc, char **argv)
try {
    prepare_process();
    Cli cli;
    const int status = run(cli, {argv + std::min(argc, 1), argv + argc});
    if (!cli.quiet && cli.writes_json && (!cli.traces || cli.has("--compare")))
        cli.document.print_json();
    else if (!cli.quiet)
        cli.document.print_text(cli.traces ? stderr : stdout); // the trace is on standard output

    errno = 0;
    if (fflush(stdout) != 0 || ferror(stdout) != 0)
        return fail(cli, cli.failure_status,
                    std::string("can't write to standard output: ") +
                        (errno != 0 ? strerror(errno) : "some output is lost"));
    return status;
} catch (const std::exception &error) {
    fprintf(stderr, "ime-backupctl: %s\n", escaped(error.what()).c_str());
    return EXIT_FAILED;
}
