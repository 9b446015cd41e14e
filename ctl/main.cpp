// ime-backupctl: makes, shows and restores backups of the keyboard's settings on a workstation.

#include <cerrno>
#include <cstring>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "errors.h"

static int run(int argc, char **argv)
{
    CLI::App app("Backs up and restores the settings of the on-screen keyboard.", "ime-backupctl");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.set_version_flag("--version", IME_BACKUP_VERSION);
    app.footer("Exit status: 0 done, 1 failed, 2 wrong usage, 3 the platform isn't there.\n");

    const auto not_empty = [](const std::string &text) -> std::string {
        return text.empty() ? "it is empty" : "";
    };

    ServiceOptions options;
    options.program = default_service_program();
    app.add_flag("-v,--verbose", options.verbose, "Show the service's log as it runs");
    app.add_option("--timeout", options.timeout_seconds, "Seconds to wait for the service")
        ->check(CLI::Range(0.1, 86'400.0))
        ->check([](const std::string &text) -> std::string {
            return text.find("nan") == std::string::npos ? "" : "not a number";
        })
        ->capture_default_str();
    app.add_option("--service", options.program, "The service's program")
        ->envname("IME_BACKUP_SERVICE")
        ->check(not_empty);

    int status = EXIT_DONE;
    std::string id;
    std::string name;
    std::string value;

    app.add_subcommand("backup", "Make a backup")->callback([&] { status = cmd_backup(options); });
    auto *restore = app.add_subcommand("restore", "Restore the newest backup, or the one named");
    restore->add_option("ID", id, "The backup's number")->check(not_empty);
    restore->callback([&] { status = cmd_restore(options, id); });
    app.add_subcommand("info", "Show the keys and dates of what a backup would hold")->callback([&] {
        status = cmd_info(options);
    });
    app.add_subcommand("list", "List the backups, newest last")->callback([&] { status = cmd_list(); });
    auto *show = app.add_subcommand("show", "Show the snapshot in the newest backup, or in the one named");
    show->add_option("ID", id, "The backup's number")->check(not_empty);
    show->callback([&] { status = cmd_show(id); });

    auto *settings = app.add_subcommand("settings", "Show the settings as they are now, or change one");
    auto *set = settings->add_subcommand("set", "Change a setting");
    set->add_option("NAME", name,
                    "The setting, as in a snapshot; also downloaded_lang and "
                    "downloaded_with_handwriting_lang")
        ->required();
    set->add_option("VALUE", value,
                    "true or false; languages with commas between them; a keyboard's identifier")
        ->required();
    settings->callback([&] { status = set->parsed() ? cmd_settings_set(name, value) : cmd_settings(); });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
    }
    if (app.get_subcommands().empty()) {
        fprintf(stderr, "%s", app.help().c_str());
        return EXIT_USAGE;
    }
    if (fflush(stdout) != 0)
        throw HostError(std::string("can't write to standard output: ") + strerror(errno));
    return status;
}

int main(int argc, char **argv)
{
    const auto fail = [](const std::exception &error, int status) {
        fprintf(stderr, "ime-backupctl: %s\n", error.what());
        return status;
    };
    try {
        return run(argc, argv);
    } catch (const UsageError &error) {
        return fail(error, EXIT_USAGE);
    } catch (const PlatformError &error) {
        return fail(error, EXIT_NO_PLATFORM);
    } catch (const StateError &error) {
        return fail(error, EXIT_NO_PLATFORM);
    } catch (const std::exception &error) {
        return fail(error, EXIT_FAILED);
    }
}
