#include <algorithm>
#include <csignal>
#include <regex>

#include "cli.h"
#include "suggestion.h"
#include "text.h"
#include "trace_options.h"

using Failures = std::vector<std::string>;

static std::string check_failure(const std::string &text)
{
    static const std::regex form("([^#=]+)(#[1-9][0-9]{0,5})?(=-?[0-9]{1,9})?");
    std::smatch part;
    if (!std::regex_match(text, part, form))
        return "not FUNCTION, FUNCTION#N, FUNCTION=CODE or FUNCTION#N=CODE: " + text;
    const std::vector<std::string> known(std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS));
    if (std::find(known.begin(), known.end(), part[1]) == known.end())
        return "there is no function \"" + part[1].str() + "\"" + did_you_mean(part[1], known);
    return "";
}

static void print_trace(std::string_view text)
{
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

/// Has the exchanges that follow show their calls.
static void begin_trace(Cli &cli, const Failures &failures)
{
    TraceOptions trace{default_trace_library(), join(failures, " "), cli.json, print_trace};
    if (cli.quiet)
        trace.on_output = [](std::string_view) {};
    cli.service.trace = trace;
    // When nobody reads the trace any more, the exchange still ends in order, and what is lost is told.
    std::signal(SIGPIPE, SIG_IGN);
}

/// Adds what traces one exchange.
static CLI::App *add_exchange(Cli &cli, CLI::App &trace, const Command &command,
                              const std::function<void()> &run)
{
    CLI::App *added = add_command(trace, command);
    const auto failures = std::make_shared<Failures>();
    added
        ->add_option(
            OPTION_FAIL, *failures,
            "Have a call fail with a code (-1) instead of being made: the N-th call of the function, or "
            "the first. May be repeated")
        ->type_name("FUNCTION[#N][=CODE]")
        ->allow_extra_args(false)
        ->check(check_failure);
    added->callback([&cli, failures, run] {
        begin_trace(cli, *failures);
        run();
    });
    return added;
}

void add_trace(Cli &cli)
{
    auto *trace = add_command(
        cli.app,
        {"trace", GROUP_DEVICE, "Show what the service asks of the platform in an exchange",
         "Each call that the service makes, with its arguments, its result and the time that it took, stands "
         "below the callback that made it. What is set by the call has an & in front. The trace goes to "
         "standard output as the exchange runs; what the command without trace would tell goes to standard "
         "error. With --json, each line is an object.",
         "ime-backupctl trace restore --dry-run"});
    trace->require_subcommand(0, 1);
    trace->callback([trace] {
        if (trace->get_subcommands().empty())
            throw UsageError("trace lacks what it is to show: backup, restore or info");
    });

    add_exchange(cli, *trace,
                 {"backup", "", "Show the calls of a backup", "The backup is stored.",
                  "ime-backupctl trace backup --fail vconf_get_bool#2=-1"},
                 [&cli] { make_backup(cli, false); });
    const auto options = std::make_shared<RestoreOptions>();
    CLI::App *restoration = add_exchange(
        cli, *trace,
        {"restore", "", "Show the calls of a restore",
         "The newest backup is restored, or the one named. What is changed can be put back with undo.",
         "ime-backupctl trace restore 3 --fail scim::ConfigBase::flush"},
        [&cli, options] { restore(cli, *options); });
    add_argument(*restoration, LABEL_ID, options->id, "The backup's number");
    restoration->add_flag("--dry-run", options->is_trial, "Change nothing on the device");
    add_exchange(cli, *trace,
                 {"info", "", "Show the calls that tell the keys and dates of a backup",
                  "Nothing is read or stored.", "ime-backupctl trace info --json"},
                 [&cli] { show_info(cli); });
}
