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
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <glib-unix.h>

#include "files.h"
#include "orvanta_cloud_operations.h"
#include "process.h"
#include "service_log.h"
#include "signals.h"
#include "text.h"
#include "trace_options.h"

namespace fs = std::filesystem;

static constexpr guint GRACE_SECONDS = 2;
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
        const HeldSignals held;
        signals.reset();
        for (const int signal : {SIGINT, SIGTERM, SIGALRM})
            std::signal(signal, on_late_signal);
        g_source_remove(timer);
        g_main_loop_unref(loop);
    }

    Stop wait_for(pid_t process)
    {
        service = process;
        const Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, service, 0)));
        if (end) {
            g_unix_fd_add(end.get(), G_IO_IN, on_end, this);
            g_main_loop_run(loop);
        } else { // not even that can be opened
            stop(Stop::interrupted);
        }
        waitpid(service, &status, 0);
        return stopped;
    }

    /// How the service ended, as waitpid() has it.
    int service_status() const { return status; }

private:
    /// Asks the service to end and, when that was done already, ends it.
    void stop(Stop why)
    {
        kill(service, stopped == Stop::none ? SIGTERM : SIGKILL);
        if (stopped == Stop::none)
            stopped = why;
    }

    static gboolean on_timeout(void *data)
    {
        auto *wait = static_cast<Wait *>(data);
        wait->stop(Stop::timed_out);
        wait->timer = g_timeout_add_seconds(GRACE_SECONDS, on_timeout, data);
        return G_SOURCE_REMOVE;
    }

    static gboolean on_end(int, GIOCondition, void *data)
    {
        g_main_loop_quit(static_cast<Wait *>(data)->loop);
        return G_SOURCE_REMOVE;
    }

    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    pid_t service = 0;
    int status = 0;
    Stop stopped = Stop::none;
    std::optional<TerminationSignals> signals{std::in_place, [this] { stop(Stop::interrupted); }};
    guint timer;
};

/// What a process is started with.
class Launch
{
public:
    Launch() = default;
    Launch(const Launch &) = delete;
    Launch &operator=(const Launch &) = delete;
    ~Launch() { g_strfreev(environment); }

    void set_variable(const char *name, const std::string &value)
    {
        environment = g_environ_setenv(environment, name, value.c_str(), TRUE);
    }

    /// Has the process have an open file, which stays this one's, too, under a number of its own.
    void give_file(int file, int number)
    {
        files.push_back(file);
        numbers.push_back(number);
    }

    pid_t start(const std::string &program, const char *argument) const
    {
        const char *const arguments[] = {program.c_str(), argument, nullptr};
        // As it is, it needs no copy of this process: what is open here closes itself.
        const auto flags = static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD |
                                                    G_SPAWN_LEAVE_DESCRIPTORS_OPEN | G_SPAWN_SEARCH_PATH);
        GPid process = 0;
        g_autoptr(GError) error = nullptr;
        if (g_spawn_async_with_pipes_and_fds(nullptr, arguments, environment, flags, nullptr, nullptr, -1, -1,
                                             -1, files.data(), numbers.data(), files.size(), &process,
                                             nullptr, nullptr, nullptr, &error) == FALSE)
            throw PlatformError(std::string("can't start the service: ") + error->message);
        return process;
    }

private:
    gchar **environment = g_get_environ();
    std::vector<int> files;
    std::vector<int> numbers;
};

/// The trace that a service writes, as it comes.
class TraceReader
{
public:
    /// Has the service that is to be launched write one.
    TraceReader(const TraceOptions &trace, Launch &launch) : options(trace)
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
        input = Descriptor(ends[1]);
        // What the service started may hold the other end when the service has ended.
        g_unix_set_fd_nonblocking(output.get(), TRUE, nullptr);
        launch.give_file(input.get(), TRACE_DESCRIPTOR);
        launch.set_variable("LD_PRELOAD", options.library);
        launch.set_variable(TRACE_VARIABLE, std::to_string(TRACE_DESCRIPTOR));
        launch.set_variable(TRACE_FORMAT_VARIABLE, options.as_json ? "json" : "");
        launch.set_variable(TRACE_FAIL_VARIABLE, options.failures);
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
    Descriptor input;
    guint source = 0;
};

pid_t start_service(const ServiceOptions &options, const Request &request, const Descriptor &report,
                    const ServiceLog &log, std::optional<TraceReader> &trace)
{
    Launch launch;
    // Without a bus, or an instance that runs with other settings could answer in the new one's place.
    launch.set_variable("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    launch.set_variable(CLIENT_VARIABLE, std::to_string(getpid()));
    launch.set_variable(REPORT_VARIABLE, name_report_file(report.get(), REPORT_DESCRIPTOR));
    launch.set_variable(STORE_TIMEOUT_VARIABLE, std::to_string(options.timeout_seconds));
    launch.set_variable(RESTORE_VARIABLE, request.backup);
    launch.set_variable(TRIAL_VARIABLE, request.is_trial ? "1" : "");
    launch.set_variable(IF_CHANGED_VARIABLE, request.if_changed ? "1" : "");
    launch.give_file(report.get(), REPORT_DESCRIPTOR);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
        launch.give_file(options.verbose ? STDERR_FILENO : log.descriptor(), stream);
    if (options.trace)
        trace.emplace(*options.trace, launch);
    return launch.start(options.program, request.operation);
}

std::string describe_end(int status)
{
    if (WIFSIGNALED(status))
        return std::string("the service was ended by a signal (") + g_strsignal(WTERMSIG(status)) + ")";
    return "the service gave no result of an exchange (exit status " + std::to_string(WEXITSTATUS(status)) +
           ")";
}

/// What is known of the work of a service that came to no result.
std::string describe_work(const ExchangeReport &report, const Request &request, int status)
{
    // Asked to end, it gives up before it stores anything, or tells what it stored, or that it does not know.
    const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM;
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
    const Stop stopped = wait->wait_for(start_service(options, request, report_file, log, trace));
    const int end = wait->service_status();
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
            report.reason = describe_end(end);
        report.reason += describe_work(report, request, end);
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
