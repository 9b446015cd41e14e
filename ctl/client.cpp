#include "client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <gio/gio.h>
#include <glib-unix.h>

#include "files.h"
#include "ime_backup_operations.h"
#include "process.h"
#include "service_log.h"
#include "text.h"
#include "trace_options.h"

namespace fs = std::filesystem;

static constexpr guint GRACE_SECONDS = 2;
/// The numbers of the report's file and of the trace's in the service.
static constexpr int REPORT_DESCRIPTOR = 3;
static constexpr int TRACE_DESCRIPTOR = 4;

static std::string find_beside(const char *path_from_bindir)
{
    return (fs::read_symlink("/proc/self/exe").parent_path() / path_from_bindir).lexically_normal();
}

std::string default_service_program()
{
    return find_beside(SERVICE_FROM_BINDIR);
}

std::string default_trace_library()
{
    return find_beside(TRACE_FROM_BINDIR);
}

namespace
{

/// Why the service was stopped.
enum class Stop { none, interrupted, timed_out };

/// Signals that come while the result is being told leave some time for that, however many there are: it is
/// to be told that a backup was stored.
void on_late_signal(int signal)
{
    static volatile std::sig_atomic_t is_last_moment = 0;
    if (signal == SIGALRM)
        _exit(EXIT_INTERRUPTED);
    if (is_last_moment == 0)
        alarm(GRACE_SECONDS);
    is_last_moment = 1;
}

/// The wait for the service's end, with all that the main loop is given for it.
class Wait
{
public:
    explicit Wait(double timeout_seconds)
        : timer(g_timeout_add(static_cast<guint>(timeout_seconds * 1000), on_timeout, this))
    {
    }
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;
    ~Wait()
    {
        // No signal comes between the two ways of taking it.
        sigset_t both;
        sigset_t before;
        sigemptyset(&both);
        sigaddset(&both, SIGINT);
        sigaddset(&both, SIGTERM);
        sigprocmask(SIG_BLOCK, &both, &before);
        for (const guint source : {interrupt, termination, timer})
            g_source_remove(source);
        for (const int signal : {SIGINT, SIGTERM, SIGALRM})
            std::signal(signal, on_late_signal);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        g_main_loop_unref(loop);
    }

    Stop wait_for(GSubprocess *process)
    {
        service = process;
        g_subprocess_wait_async(service, nullptr, on_exit, this);
        g_main_loop_run(loop);
        return stopped;
    }

private:
    /// Asks the service to end and, when that was done already, ends it.
    void stop(Stop why)
    {
        g_subprocess_send_signal(service, stopped == Stop::none ? SIGTERM : SIGKILL);
        if (stopped == Stop::none)
            stopped = why;
    }

    static gboolean on_interrupt(void *data)
    {
        static_cast<Wait *>(data)->stop(Stop::interrupted);
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_timeout(void *data)
    {
        auto *wait = static_cast<Wait *>(data);
        wait->stop(Stop::timed_out);
        wait->timer = g_timeout_add_seconds(GRACE_SECONDS, on_timeout, data);
        return G_SOURCE_REMOVE;
    }

    static void on_exit(GObject *, GAsyncResult *, void *data)
    {
        g_main_loop_quit(static_cast<Wait *>(data)->loop);
    }

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    GSubprocess *service = nullptr;
    Stop stopped = Stop::none;
    guint interrupt = g_unix_signal_add(SIGINT, on_interrupt, this);
    guint termination = g_unix_signal_add(SIGTERM, on_interrupt, this);
    guint timer;
};

/// The trace that a service writes, as it comes.
class TraceReader
{
public:
    /// Has the service that is to be launched write one.
    TraceReader(const TraceOptions &trace, GSubprocessLauncher *launcher) : options(trace)
    {
        if (!fs::exists(options.library))
            throw PlatformError("there is no " + options.library + ", which shows the calls");
        if (options.library.find_first_of(": ") != std::string::npos)
            throw PlatformError("can't be preloaded, since there is a space or a colon in its path: " +
                                options.library);
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw PlatformError(std::string("can't make a pipe for the trace: ") + strerror(errno));
        output = Descriptor(ends[0]);
        // What the service started may hold the other end when the service has ended.
        g_unix_set_fd_nonblocking(output.get(), TRUE, nullptr);
        g_subprocess_launcher_take_fd(launcher, ends[1], TRACE_DESCRIPTOR);
        g_subprocess_launcher_setenv(launcher, "LD_PRELOAD", options.library.c_str(), TRUE);
        g_subprocess_launcher_setenv(launcher, TRACE_VARIABLE, std::to_string(TRACE_DESCRIPTOR).c_str(),
                                     TRUE);
        g_subprocess_launcher_setenv(launcher, TRACE_FORMAT_VARIABLE, options.as_json ? "json" : "", TRUE);
        g_subprocess_launcher_setenv(launcher, TRACE_FAIL_VARIABLE, options.failures.c_str(), TRUE);
        source = g_unix_fd_add(output.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), on_output, this);
    }
    TraceReader(const TraceReader &) = delete;
    TraceReader &operator=(const TraceReader &) = delete;
    ~TraceReader()
    {
        if (source != 0)
            g_source_remove(source);
    }

    /// Once the service has ended, so that this ends, too.
    void read_rest()
    {
        while (read_some()) {
        }
    }

private:
    bool read_some()
    {
        std::array<char, 4096> text = {};
        const ssize_t count = read(output.get(), text.data(), text.size());
        if (count > 0)
            options.on_output({text.data(), static_cast<size_t>(count)});
        return count > 0 || (count < 0 && errno == EINTR);
    }

    static gboolean on_output(int, GIOCondition, void *data)
    {
        auto *reader = static_cast<TraceReader *>(data);
        if (reader->read_some())
            return G_SOURCE_CONTINUE;
        reader->source = 0;
        return G_SOURCE_REMOVE;
    }

    const TraceOptions &options;
    Descriptor output;
    guint source = 0;
};

GSubprocess *launch(const ServiceOptions &options, const Request &request, const Descriptor &report,
                    const ServiceLog &log, std::optional<TraceReader> &trace)
{
    g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
    // Without a bus, or an instance that runs with other settings could answer in the new one's place.
    g_subprocess_launcher_setenv(launcher, "DBUS_SESSION_BUS_ADDRESS", "disabled:", TRUE);
    g_subprocess_launcher_setenv(launcher, REPORT_VARIABLE,
                                 name_report_file(report.get(), REPORT_DESCRIPTOR).c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, STORE_TIMEOUT_VARIABLE,
                                 std::to_string(options.timeout_seconds).c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, RESTORE_VARIABLE, request.backup.c_str(), TRUE);
    g_subprocess_launcher_setenv(launcher, TRIAL_VARIABLE, request.is_trial ? "1" : "", TRUE);
    g_subprocess_launcher_setenv(launcher, IF_CHANGED_VARIABLE, request.if_changed ? "1" : "", TRUE);
    g_subprocess_launcher_take_fd(launcher, dup(report.get()), REPORT_DESCRIPTOR);
    const int output = options.verbose ? STDERR_FILENO : log.descriptor();
    g_subprocess_launcher_take_stdout_fd(launcher, dup(output));
    g_subprocess_launcher_take_stderr_fd(launcher, dup(output));
    g_subprocess_launcher_set_child_setup(launcher, end_with_parent, GINT_TO_POINTER(SIGTERM), nullptr);
    if (options.trace)
        trace.emplace(*options.trace, launcher);

    g_autoptr(GError) error = nullptr;
    GSubprocess *service =
        g_subprocess_launcher_spawn(launcher, &error, options.program.c_str(), request.operation, nullptr);
    if (service == nullptr)
        throw PlatformError(std::string("can't start the service: ") + error->message);
    return service;
}

std::string describe_end(GSubprocess *service)
{
    if (g_subprocess_get_if_signaled(service) != FALSE)
        return std::string("the service was ended by a signal (") +
               g_strsignal(g_subprocess_get_term_sig(service)) + ")";
    return "the service gave no result of an exchange (exit status " +
           std::to_string(g_subprocess_get_exit_status(service)) + ")";
}

/// What is known of the work of a service that came to no result.
std::string describe_work(const ExchangeReport &report, const Request &request, GSubprocess *service)
{
    // Asked to end, it gives up before it stores anything, or tells what it stored, or that it does not know.
    const bool was_killed =
        g_subprocess_get_if_signaled(service) != FALSE && g_subprocess_get_term_sig(service) != SIGTERM;
    if ((was_killed || report.storing) && strcmp(request.operation, OPERATION_BACKUP) == 0 &&
        !request.is_trial)
        return "; \"ime-backupctl list\" shows whether the backup had been stored by then";
    const std::vector<Change> &changes = report.changes;
    const auto any = [&](Change::Outcome outcome) {
        return std::any_of(changes.begin(), changes.end(),
                           [&](const Change &change) { return change.outcome == outcome; });
    };
    if (any(Change::Outcome::made) && !request.is_trial)
        return "; settings of the device had been changed by then; \"ime-backupctl undo\" puts them back";
    if (any(Change::Outcome::pending) && !request.is_trial)
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

int status_of(const ExchangeReport &report, Stop stopped)
{
    switch (report.result) {
    case ExchangeReport::Result::succeeded:
        return EXIT_DONE;
    case ExchangeReport::Result::failed:
        return EXIT_FAILED;
    case ExchangeReport::Result::no_platform:
        return EXIT_NO_PLATFORM;
    case ExchangeReport::Result::no_backup:
        return EXIT_NO_BACKUP;
    case ExchangeReport::Result::damaged:
        return EXIT_DAMAGED;
    case ExchangeReport::Result::undecided:
        break;
    }
    return stopped == Stop::interrupted ? EXIT_INTERRUPTED
           : stopped == Stop::timed_out ? EXIT_TIMED_OUT
                                        : EXIT_FAILED;
}

void show_failure(const ExchangeReport &report)
{
    fprintf(stderr, "ime-backupctl: %s\n", escaped(report.reason).c_str());
    const auto has = [&](Trouble::Kind kind, std::initializer_list<SettingPlace> places) {
        return std::any_of(report.troubles.begin(), report.troubles.end(), [&](const Trouble &trouble) {
            return trouble.kind == kind &&
                   std::find(places.begin(), places.end(), trouble.place) != places.end();
        });
    };
    if (has(Trouble::Kind::unusable, {SettingPlace::configuration, SettingPlace::input_method_control}))
        fprintf(stderr, "%s\n", HINT_SCIM);
    else if (has(Trouble::Kind::unfit, {SettingPlace::input_method_control}))
        fprintf(stderr, "%s\n", HINT_KEYBOARD);
    else if (report.result == ExchangeReport::Result::no_backup)
        fprintf(stderr, "%s\n", HINT_BACKUP);
}

/// Whether the service's log could tell more than the reason does.
bool may_be_explained_by_log(const ExchangeReport &report)
{
    return report.result != ExchangeReport::Result::no_backup &&
           report.result != ExchangeReport::Result::damaged;
}

} // namespace

Outcome run_exchange(const ServiceOptions &options, const Request &request)
{
    const ServiceLog log;
    const Descriptor report_file(memfd_create("exchange-report", MFD_CLOEXEC));
    std::optional<Wait> wait(std::in_place, options.timeout_seconds);
    std::optional<TraceReader> trace;
    g_autoptr(GSubprocess) service = launch(options, request, report_file, log, trace);
    const Stop stopped = wait->wait_for(service);
    if (trace)
        trace->read_rest();
    wait.reset();

    // What has a result keeps it, however the service ended.
    ExchangeReport report = read_report(report_file);
    if (report.result == ExchangeReport::Result::undecided) {
        if (stopped == Stop::interrupted)
            report.reason = "interrupted";
        else if (stopped == Stop::timed_out)
            report.reason = "the service did not finish in time and was stopped";
        else if (report.reason.empty())
            report.reason = describe_end(service);
        report.reason += describe_work(report, request, service);
    }
    // An exchange is called by the end of its operation's identifier. What the service registers decides it.
    if (report.result == ExchangeReport::Result::succeeded &&
        !std::string_view(request.operation).ends_with(report.operation)) {
        report.result = ExchangeReport::Result::failed;
        report.reason = "the service asked for another exchange: " + report.operation;
    }

    const int status = status_of(report, stopped);
    if (status != EXIT_DONE) {
        show_failure(report);
        if (!options.verbose && may_be_explained_by_log(report))
            log.show_last_lines();
    }
    return {report, status};
}

std::string take_snapshot(const ServiceOptions &options)
{
    const Outcome outcome = run_exchange(options, {.operation = OPERATION_BACKUP, .is_trial = true});
    if (outcome.status != EXIT_DONE)
        throw ToldError(outcome.status, outcome.report.reason);
    return outcome.report.snapshot;
}
