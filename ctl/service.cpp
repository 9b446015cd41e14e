#include "service.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sys/prctl.h>
#include <unistd.h>

#include <gio/gio.h>
#include <glib-unix.h>

#include "cloud_store.h"
#include "errors.h"

namespace fs = std::filesystem;

static constexpr off_t MAX_LOG_SIZE = off_t{1} << 20;
static constexpr size_t SHOWN_LOG_LINES = 8;
static constexpr guint GRACE_MS = 2000;

std::string default_service_program()
{
    return (fs::read_symlink("/proc/self/exe").parent_path() / SERVICE_FROM_BINDIR).lexically_normal();
}

namespace
{

/// The service's log file, and where in it this exchange's lines begin.
class ServiceLog
{
public:
    ServiceLog() : file(state_root() / "service.log")
    {
        make_private_folder(file.parent_path());
        std::error_code ignored;
        if (fs::file_size(file, ignored) > MAX_LOG_SIZE && !ignored)
            fs::rename(file, file.string() + ".1");
        descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (descriptor < 0)
            throw StateError("can't write " + file.string() + ": " + g_strerror(errno));
        begin = lseek(descriptor, 0, SEEK_END);
    }
    ServiceLog(const ServiceLog &) = delete;
    ServiceLog &operator=(const ServiceLog &) = delete;
    ~ServiceLog() { close(descriptor); }

    int duplicate() const { return fcntl(descriptor, F_DUPFD_CLOEXEC, 0); }

    void show_last_lines() const
    {
        std::ifstream stream(file);
        stream.seekg(begin);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        const size_t first = lines.size() > SHOWN_LOG_LINES ? lines.size() - SHOWN_LOG_LINES : 0;
        for (size_t i = first; i < lines.size(); i++)
            fprintf(stderr, "  %s\n", lines[i].c_str());
        fprintf(stderr, "The service's log is %s\n", file.c_str());
    }

private:
    fs::path file;
    int descriptor = -1;
    off_t begin = 0;
};

/// A name for the report that no other process uses; the file goes with the object.
struct ReportFile {
    const fs::path path = state_root() / ("exchange-" + std::to_string(getpid()) + ".json");

    ReportFile()
    {
        // Those of processes that were killed, and of an earlier one with this number.
        for (const auto &entry : fs::directory_iterator(state_root())) {
            int pid = 0;
            if (sscanf(entry.path().filename().c_str(), "exchange-%d.json", &pid) == 1 &&
                (pid == getpid() || (kill(pid, 0) != 0 && errno == ESRCH)))
                fs::remove(entry.path());
        }
    }
    ReportFile(const ReportFile &) = delete;
    ReportFile &operator=(const ReportFile &) = delete;
    ~ReportFile()
    {
        std::error_code ignored;
        fs::remove(path, ignored);
    }
};

/// The wait for the service's end.
struct Wait {
    GSubprocess *service;
    GMainLoop *loop;
    std::string stopped_because;
};

void stop(Wait &wait, const std::string &reason)
{
    const bool first = wait.stopped_because.empty();
    if (first)
        wait.stopped_because = reason;
    g_subprocess_send_signal(wait.service, first ? SIGTERM : SIGKILL);
}

gboolean on_grace_over(void *data)
{
    stop(*static_cast<Wait *>(data), "");
    return G_SOURCE_REMOVE;
}

gboolean on_timeout(void *data)
{
    stop(*static_cast<Wait *>(data), "the service did not finish in time and was stopped");
    g_timeout_add(GRACE_MS, on_grace_over, data);
    return G_SOURCE_REMOVE;
}

gboolean on_interrupt(void *data)
{
    stop(*static_cast<Wait *>(data), "interrupted");
    return G_SOURCE_CONTINUE;
}

void on_exit(GObject *, GAsyncResult *, void *data)
{
    g_main_loop_quit(static_cast<Wait *>(data)->loop);
}

/// Runs in the new process: should this one be killed, no service is left waiting.
void end_with_parent(void *)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

using Subprocess = std::unique_ptr<GSubprocess, ObjectUnref>;

Subprocess launch(const ServiceOptions &options, const char *operation, const std::string &backup,
                  const ReportFile &report, const ServiceLog &log)
{
    const std::unique_ptr<GSubprocessLauncher, ObjectUnref> launcher(
        g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
    GSubprocessLauncher *l = launcher.get();
    // Without a bus, or an instance that runs with other settings could answer in the new one's place.
    g_subprocess_launcher_setenv(l, "DBUS_SESSION_BUS_ADDRESS", "disabled:", TRUE);
    g_subprocess_launcher_setenv(l, REPORT_VARIABLE, report.path.c_str(), TRUE);
    g_subprocess_launcher_setenv(l, RESTORE_VARIABLE, backup.c_str(), TRUE);
    g_subprocess_launcher_take_stdout_fd(l, options.verbose ? dup(STDERR_FILENO) : log.duplicate());
    if (!options.verbose)
        g_subprocess_launcher_take_stderr_fd(l, log.duplicate());
    g_subprocess_launcher_set_child_setup(l, end_with_parent, nullptr, nullptr);

    GError *error = nullptr;
    Subprocess service(g_subprocess_launcher_spawn(l, &error, options.program.c_str(), operation, nullptr));
    if (!service) {
        const std::string message = error->message;
        g_error_free(error);
        throw PlatformError("can't start the service: " + message);
    }
    return service;
}

/// @return why the service was stopped, if it was
std::string wait_for_end(GSubprocess *service, double timeout_seconds)
{
    g_autoptr(GMainLoop) loop = g_main_loop_new(nullptr, FALSE);
    Wait wait{service, loop, ""};
    g_subprocess_wait_async(service, nullptr, on_exit, &wait);
    g_timeout_add(static_cast<guint>(timeout_seconds * 1000), on_timeout, &wait);
    g_unix_signal_add(SIGINT, on_interrupt, &wait);
    g_unix_signal_add(SIGTERM, on_interrupt, &wait);
    g_main_loop_run(loop);
    return wait.stopped_because;
}

std::string describe_end(GSubprocess *service)
{
    if (g_subprocess_get_if_signaled(service) != FALSE)
        return std::string("the service was ended by a signal (") +
               g_strsignal(g_subprocess_get_term_sig(service)) + ")";
    return "the service left no report of an exchange (exit status " +
           std::to_string(g_subprocess_get_exit_status(service)) + ")";
}

} // namespace

ExchangeReport run_exchange(const ServiceOptions &options, const char *operation, const std::string &backup)
{
    const ServiceLog log;
    const ReportFile report_file;
    const Subprocess service = launch(options, operation, backup, report_file, log);
    const std::string stopped_because = wait_for_end(service.get(), options.timeout_seconds);

    ExchangeReport report;
    if (fs::exists(report_file.path))
        report = read_report(report_file.path);
    else
        report.reason = describe_end(service.get());
    if (!stopped_because.empty() && !report.succeeded)
        report.reason = stopped_because;

    if (!report.succeeded) {
        fprintf(stderr, "ime-backupctl: %s\n", report.reason.c_str());
        if (!options.verbose)
            log.show_last_lines();
    }
    return report;
}
