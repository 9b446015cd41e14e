#include "client.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <glib.h>

#include "child.h"
#include "contact.h"
#include "files.h"
#include "orvanta_cloud_operations.h"
#include "paths.h"
#include "service_log.h"
#include "text.h"
#include "trace_options.h"

namespace fs = std::filesystem;

static constexpr unsigned GRACE_SECONDS = 2;
/// The numbers of the report's file and of the trace's in the service.
static constexpr int REPORT_DESCRIPTOR = 3;
static constexpr int TRACE_DESCRIPTOR = 4;

std::string find_beside(const char *path_from_bindir)
{
    return (fs::read_symlink("/proc/self/exe").parent_path() / path_from_bindir).lexically_normal();
}

std::string default_service_program()
{
    return find_beside(SERVICE_FROM_BINDIR);
}

std::string default_trace_library()
{
    return find_beside(LIBDIR_FROM_BINDIR "/libime-backup-trace.so");
}

namespace
{

/// Once the service has ended, signals leave some time to tell the result, however many there are: it is to
/// be told that a backup was stored.
void on_late_signal(int signal)
{
    static volatile std::sig_atomic_t is_last_moment = 0;
    if (signal == SIGALRM)
        _exit(EXIT_INTERRUPTED);
    if (is_last_moment == 0)
        alarm(GRACE_SECONDS);
    is_last_moment = 1;
}

/// Has a service show its calls as it makes them.
void add_trace(Child &service, const TraceOptions &options)
{
    if (!fs::exists(options.library))
        throw PlatformError("there is no " + options.library + ", which shows the calls");
    if (options.library.find_first_of(": ") != std::string::npos)
        throw PlatformError("can't be preloaded, since there is a space or a colon in its path: " +
                            options.library);
    service.environment["LD_PRELOAD"] = options.library;
    service.environment[TRACE_VARIABLE] = std::to_string(TRACE_DESCRIPTOR);
    service.environment[TRACE_FORMAT_VARIABLE] = options.as_json ? "json" : "";
    service.environment[TRACE_FAIL_VARIABLE] = options.failures;
    service.output = TRACE_DESCRIPTOR;
    service.on_output = [&options](std::string_view text) {
        if (options.is_hidden)
            return;
        fwrite(text.data(), 1, text.size(), stdout);
        fflush(stdout);
    };
}

ChildEnd run_service(const ServiceOptions &options, const char *operation, const std::string &backup,
                     const Descriptor &report, const ServiceLog &log)
{
    Child service{.program = options.program, .arguments = {operation}};
    // Without a bus, or an instance that runs with other settings could answer in the new one's place.
    service.environment["DBUS_SESSION_BUS_ADDRESS"] = "disabled:";
    service.environment[REPORT_VARIABLE] = name_report_file(report.get(), REPORT_DESCRIPTOR);
    service.environment[STORE_TIMEOUT_VARIABLE] = std::to_string(options.timeout_seconds);
    service.environment[RESTORE_VARIABLE] = backup;
    const int log_file = options.verbose ? STDERR_FILENO : log.descriptor();
    service.files = {{STDOUT_FILENO, log_file}, {STDERR_FILENO, log_file}, {REPORT_DESCRIPTOR, report.get()}};
    if (options.trace)
        add_trace(service, *options.trace);
    service.microseconds = static_cast<gint64>(options.timeout_seconds * G_USEC_PER_SEC);
    std::signal(SIGALRM, on_late_signal);
    service.on_late_signal = on_late_signal;
    const ChildEnd end = run_child(std::move(service));
    if (end.error != 0)
        throw PlatformError("can't start the service " + options.program + ": " + strerror(end.error));
    return end;
}

std::string describe_end(int status)
{
    if (WIFSIGNALED(status))
        return std::string("the service was ended by a signal (") + g_strsignal(WTERMSIG(status)) + ")";
    return "the service gave no result of an exchange (exit status " + std::to_string(WEXITSTATUS(status)) +
           ")";
}

/// What is known of the work of a service that came to no result.
std::string describe_work(const ExchangeReport &report, const char *operation, int status)
{
    // Asked to end, it gives up before it stores anything, or tells what it stored, or that it does not know.
    const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM;
    if ((was_killed || report.storing) && strcmp(operation, OPERATION_BACKUP) == 0)
        return "; \"ime-backupctl list\" shows whether the backup had been stored by then";
    const std::vector<Change> &changes = report.changes;
    const auto any = [&](Change::Outcome outcome) {
        return std::any_of(changes.begin(), changes.end(),
                           [&](const Change &change) { return change.outcome == outcome; });
    };
    if (any(Change::Outcome::made))
        return "; settings of the device had been changed by then; \"ime-backupctl undo\" puts them back";
    if (any(Change::Outcome::pending))
        return "; a setting of the device may have been changed by then; \"ime-backupctl undo\" puts it back";
    return "; nothing on the device had been changed by then";
}

ExchangeReport read_report(const Descriptor &file)
{
    try {
        return decode_report(read_from(file, 0));
    } catch (const HostError &error) {
        ExchangeReport report;
        report.reason = std::string("the service's report can't be read: ") + error.what();
        return report;
    }
}

} // namespace

ExchangeReport run_exchange(const ServiceOptions &options, std::string &log_tail, const char *operation,
                            const std::string &backup)
{
    using Result = ExchangeReport::Result;
    const ServiceLog log;
    const Descriptor report_file(memfd_create("exchange-report", MFD_CLOEXEC));
    const ChildEnd end = run_service(options, operation, backup, report_file, log);

    // What has a result keeps it, however the service ended.
    ExchangeReport report = read_report(report_file);
    if (report.result != Result::undecided) {
        // An exchange is called by the end of its operation's identifier. What the service registers decides it.
        if (report.result == Result::succeeded && !std::string_view(operation).ends_with(report.operation)) {
            report.result = Result::failed;
            report.reason = "the service asked for another exchange: " + report.operation;
        }
        return report;
    }
    if (end.stopped == Stop::interrupted) {
        report.result = Result::interrupted;
        report.reason = "interrupted";
    } else if (end.stopped == Stop::timed_out) {
        report.result = Result::timed_out;
        report.reason = "the service did not finish in time and was stopped";
    } else if (report.reason.empty()) {
        report.reason = describe_end(end.status);
    }
    report.reason += describe_work(report, operation, end.status);
    if (!options.verbose)
        log_tail = log.last_lines();
    return report;
}

FileLock wait_for_turn(double timeout_seconds, bool is_only_looking)
{
    static constexpr useconds_t RETRY_US = 20'000;
    const fs::path file = state_root() / EXCHANGE_LOCK;
    FileLock turn(file);
    std::error_code ignored;
    if (is_only_looking && !fs::exists(file, ignored))
        return turn;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
    while (!turn.try_acquire()) {
        if (std::chrono::steady_clock::now() > end)
            throw TimeoutError("another exchange did not end in time");
        usleep(RETRY_US);
    }
    return turn;
}
