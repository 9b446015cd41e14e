#include "cli.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <glib.h>

#include "child.h"
#include "orvanta_cloud_operations.h"
#include "paths.h"
#include "process.h"
#include "shared_names.h"
#include "text.h"
#include "trace_options.h"

namespace fs = std::filesystem;

static constexpr unsigned GRACE_SECONDS = 2;
/// The service gets this share of the time left, so that it can report its own timeout.
static constexpr double SHARE_OF_SERVICE = 0.8;
/// File descriptors in the service.
static constexpr int REPORT_DESCRIPTOR = 3;
static constexpr int TRACE_DESCRIPTOR = 4;

// The service's log.

static off_t size_of(const Descriptor &file)
{
    return lseek(file.get(), 0, SEEK_END);
}

/// Opens the log. Renames a log that is too large, and starts a new one. One process at a time does so; on
/// failure, the large log is used.
static Descriptor open_log(const fs::path &file)
{
    static constexpr int FLAGS = O_RDWR | O_CREAT | O_APPEND;
    static constexpr off_t MAX_SIZE = off_t{1} << 20;
    make_private_folder(file.parent_path());
    Descriptor log = open_file(file, FLAGS);
    if (size_of(log) <= MAX_SIZE || flock(log.get(), LOCK_EX | LOCK_NB) != 0)
        return log;
    std::error_code ignored;
    const bool is_current = fs::equivalent("/proc/self/fd/" + std::to_string(log.get()), file, ignored);
    if (is_current && rename(file.c_str(), (file.string() + ".1").c_str()) != 0)
        return log;
    return open_file(file, FLAGS);
}

/// Returns the last lines from `begin` on, indented and escaped.
static std::string last_lines(const Descriptor &log, off_t begin)
{
    static constexpr off_t MAX_SHOWN_SIZE = off_t{64} << 10;
    static constexpr size_t SHOWN_LINES = 8;
    std::istringstream stream(read_from(log, std::max(begin, size_of(log) - MAX_SHOWN_SIZE)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back("  " + escaped(line) + "\n");
        if (lines.size() > SHOWN_LINES)
            lines.erase(lines.begin());
    }
    return join(lines, "");
}

// The service.

/// Returns the path of a file that was installed with this program.
static std::string find_beside(const char *path_from_bindir)
{
    return (fs::read_symlink("/proc/self/exe").parent_path() / path_from_bindir).lexically_normal();
}

static std::string find_service(const Cli &cli)
{
    if (cli.has("--service"))
        return cli.value("--service");
    const char *program = g_getenv("IME_BACKUP_SERVICE");
    return program != nullptr && *program != '\0' ? program : find_beside(SERVICE_FROM_BINDIR);
}

/// After the service has ended, signals still leave GRACE_SECONDS to print the result, since a backup may
/// have been stored.
static void on_late_signal(int signal)
{
    static volatile std::sig_atomic_t is_alarm_set = 0;
    if (signal == SIGALRM)
        _exit(EXIT_INTERRUPTED);
    if (is_alarm_set == 0)
        alarm(GRACE_SECONDS);
    is_alarm_set = 1;
}

/// Preloads the tracer into the service.
static void add_trace(Child &service, Cli &cli)
{
    const std::string library = find_beside(LIBDIR_FROM_BINDIR "/libime-backup-trace.so");
    if (!fs::exists(library))
        throw PlatformError("the tracer " + library + " is missing");
    if (library.find_first_of(": ") != std::string::npos)
        throw PlatformError("can't preload the tracer: its path has a space or a colon: " + library);
    std::string &preloaded = service.environment["LD_PRELOAD"];
    preloaded = library + (preloaded.empty() ? "" : ":" + preloaded);
    service.environment[TRACE_VARIABLE] = std::to_string(TRACE_DESCRIPTOR);
    service.environment[TRACE_FORMAT_VARIABLE] = cli.has("--json") && !cli.has("--compare") ? "json" : "";
    service.environment[TRACE_FAIL_VARIABLE] = join(cli.values("--fail"), " ");
    service.output = TRACE_DESCRIPTOR;
    service.on_output = [&cli](std::string_view text) {
        if (cli.has("--compare")) {
            cli.trace += text;
        } else if (!cli.quiet) {
            fwrite(text.data(), 1, text.size(), stdout);
            fflush(stdout);
        }
    };
}

static ChildResult run_service(Cli &cli, const char *operation, const std::string &backup,
                               const Descriptor &report, const Descriptor &log)
{
    Child service{.program = find_service(cli), .arguments = {operation}};
    service.environment[REPORT_VARIABLE] = name_report_file(report.get(), REPORT_DESCRIPTOR);
    service.environment[TIMEOUT_VARIABLE] =
        std::to_string(static_cast<double>(*time_left()) / G_USEC_PER_SEC * SHARE_OF_SERVICE);
    service.environment[RESTORE_VARIABLE] = backup;
    const int log_file = cli.has("--verbose") ? STDERR_FILENO : log.get();
    service.files = {{STDOUT_FILENO, log_file}, {STDERR_FILENO, log_file}, {REPORT_DESCRIPTOR, report.get()}};
    if (cli.traces)
        add_trace(service, cli);
    service.time_limit_us = time_left();
    std::signal(SIGALRM, on_late_signal);
    service.on_late_signal = on_late_signal;
    const ChildResult end = run_child(service);
    if (end.error != 0)
        throw PlatformError("can't start the service " + service.program + ": " + strerror(end.error));
    return end;
}

/// Describes the effects of a service that reported no result.
static std::string describe_effects(const ExchangeReport &report, std::string_view operation, int status)
{
    // On SIGTERM, the service gives up before it stores a backup, or reports that one was or may have been
    // stored.
    const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM;
    if ((was_killed || report.storing) && operation == OPERATION_BACKUP)
        return "; \"ime-backupctl list\" shows whether the backup was stored";
    const auto any = [&report](Change::Outcome outcome) {
        return std::any_of(report.changes.begin(), report.changes.end(),
                           [outcome](const Change &change) { return change.outcome == outcome; });
    };
    if (any(Change::Outcome::made))
        return "; settings were changed before that; \"ime-backupctl undo\" reverts them";
    if (any(Change::Outcome::pending))
        return "; a setting may have been changed; \"ime-backupctl undo\" reverts it";
    return "; no setting was changed";
}

ExchangeReport run_exchange(Cli &cli, const char *operation, const std::string &backup)
{
    using Result = ExchangeReport::Result;
    const fs::path log_file = state_root() / SERVICE_LOG;
    const Descriptor log = open_log(log_file);
    const off_t log_begin = size_of(log);
    const Descriptor report_file(memfd_create("exchange-report", MFD_CLOEXEC));
    const ChildResult end = run_service(cli, operation, backup, report_file, log);

    ExchangeReport report;
    try {
        report = decode_report(read_from(report_file, 0));
    } catch (const HostError &error) {
        report.reason = std::string("the service's report can't be read: ") + error.what();
    }
    // A result counts, however the service ended.
    if (report.result != Result::undecided) {
        // The service's registrations decide which exchange runs.
        if (report.result == Result::succeeded && !std::string_view(operation).ends_with(report.operation)) {
            report.result = Result::failed;
            report.reason = "the service ran another exchange: " + report.operation;
        }
        return report;
    }
    if (end.stopped == StopReason::interrupted) {
        report.result = Result::interrupted;
        report.reason = "interrupted";
    } else if (end.stopped == StopReason::timed_out) {
        report.result = Result::timed_out;
        report.reason = "the service did not finish in time and was stopped";
    } else if (report.reason.empty() && WIFSIGNALED(end.status)) {
        report.reason =
            std::string("the service was killed by a signal (") + g_strsignal(WTERMSIG(end.status)) + ")";
    } else if (report.reason.empty()) {
        report.reason = "the service ended without a result (exit status " +
                        std::to_string(WEXITSTATUS(end.status)) + ")";
    }
    report.reason += describe_effects(report, operation, end.status);
    if (!cli.has("--verbose"))
        cli.log_tail = last_lines(log, log_begin) + "The service's log: " + escaped(log_file.string()) + "\n";
    return report;
}

// The lock of all exchanges.

FileLock lock_exchanges(bool read_only)
{
    const fs::path file = state_root() / EXCHANGE_LOCK;
    FileLock lock(file);
    std::error_code ignored;
    if (read_only && !fs::exists(file, ignored))
        return lock;
    lock.acquire("another exchange");
    return lock;
}

bool is_exchange_running()
{
    const fs::path file = state_root() / EXCHANGE_LOCK;
    std::error_code ignored;
    return fs::exists(file, ignored) && !FileLock(file).try_acquire();
}
