#include "rclone.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

#include <gio/gio.h>
#include <glib-unix.h>

#include "cloud_store.h"
#include "errors.h"
#include "files.h"
#include "process.h"
#include "signals.h"
#include "text.h"

/// For all subcommands, whatever the environment says: nobody is asked for anything, what is to be done is
/// done, and standard output holds what was asked for.
static const char *const COMMON_OPTIONS[] = {"--ask-password=false", "--interactive=false", "--dry-run=false",
                                             "--progress=false"};

/// Where the environment says nothing else: what fails is tried once more.
static constexpr const char *TRIES[][2] = {{"RCLONE_RETRIES", "1"}, {"RCLONE_LOW_LEVEL_RETRIES", "2"}};
/// Of the time that there is, what is spent on waiting for a silent server: twice this leaves time to tell of
/// it.
static constexpr double SHARE_OF_PATIENCE = 0.25;

static constexpr size_t MAX_REASON = 400;
static constexpr char TOO_LATE[] = "rclone did not finish in time";

namespace
{

/// The wait for a process's end, with a main loop of its own: that of the program is in the middle of
/// something.
class Wait
{
public:
    Wait()
    {
        g_main_context_push_thread_default(context);
        for (size_t i = 0; i < std::size(TERMINATION_SIGNALS); i++) {
            sigaction(TERMINATION_SIGNALS[i], nullptr, &before[i]);
            sources[i] = attach(g_unix_signal_source_new(TERMINATION_SIGNALS[i]), on_signal);
        }
    }
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;
    ~Wait()
    {
        // The program's own way of taking the signals comes back, and learns of the one that came here.
        const HeldSignals held;
        for (size_t i = 0; i < std::size(TERMINATION_SIGNALS); i++) {
            g_source_destroy(sources[i]); // not only with the context, which others may keep
            sigaction(TERMINATION_SIGNALS[i], &before[i], nullptr);
        }
        if (interrupted && before[0].sa_handler != SIG_DFL)
            raise(TERMINATION_SIGNALS[0]);
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    }

    /// @param left microseconds that it may take
    void wait_for(GSubprocess *started, std::optional<gint64> left)
    {
        process = started;
        if (left)
            attach(g_timeout_source_new(static_cast<guint>(*left / 1000)), on_timeout);
        g_subprocess_wait_async(process, nullptr, on_exit, this);
        while (!has_ended)
            g_main_context_iteration(context, TRUE);
    }

    bool is_interrupted() const { return interrupted; }
    bool is_timed_out() const { return timed_out; }

private:
    /// @return the source, which is the context's
    GSource *attach(GSource *source, GSourceFunc callback)
    {
        g_source_set_callback(source, callback, this, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
        return source;
    }

    static gboolean on_signal(void *data)
    {
        auto *wait = static_cast<Wait *>(data);
        wait->interrupted = true;
        g_subprocess_force_exit(wait->process);
        return G_SOURCE_CONTINUE;
    }

    static gboolean on_timeout(void *data)
    {
        auto *wait = static_cast<Wait *>(data);
        wait->timed_out = true;
        g_subprocess_force_exit(wait->process);
        return G_SOURCE_REMOVE;
    }

    static void on_exit(GObject *, GAsyncResult *, void *data)
    {
        static_cast<Wait *>(data)->has_ended = true;
    }

    struct sigaction before[std::size(TERMINATION_SIGNALS)] = {};
    GSource *sources[std::size(TERMINATION_SIGNALS)] = {};
    GMainContext *context = g_main_context_new();
    GSubprocess *process = nullptr;
    bool interrupted = false;
    bool timed_out = false;
    bool has_ended = false;
};

} // namespace

Rclone::Rclone(std::optional<double> timeout_seconds)
{
    if (timeout_seconds)
        left = static_cast<gint64>(*timeout_seconds * G_USEC_PER_SEC);
    const char *waiting = g_getenv(STORE_TIMEOUT_VARIABLE);
    const double seconds =
        timeout_seconds.value_or(waiting == nullptr ? 0 : g_ascii_strtod(waiting, nullptr));
    if (seconds > 0)
        patience = std::min(MAX_PATIENCE, seconds * SHARE_OF_PATIENCE);
}

/// A file in memory. Unlike a pipe it is whole when a process begins to read it, whatever becomes of this
/// one.
static Descriptor make_file(const std::string &content)
{
    Descriptor file(memfd_create("rclone", MFD_CLOEXEC));
    if (!file || !write_at(file, 0, content))
        throw HostError("there is no memory left for rclone's input and output");
    return file;
}

static void set_defaults(GSubprocessLauncher *launcher, double patience)
{
    for (const auto &[variable, value] : TRIES)
        g_subprocess_launcher_setenv(launcher, variable, value, FALSE);
    g_autofree gchar *duration = g_strdup_printf("%dms", static_cast<int>(patience * 1000));
    for (const char *variable : {"RCLONE_CONTIMEOUT", "RCLONE_TIMEOUT"})
        g_subprocess_launcher_setenv(launcher, variable, duration, FALSE);
}

static GSubprocess *launch(const std::vector<std::string> &arguments, double patience,
                           const Descriptor &input, const Descriptor &output, const Descriptor &errors)
{
    g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE);
    g_subprocess_launcher_take_stdin_fd(launcher, dup(input.get()));
    g_subprocess_launcher_take_stdout_fd(launcher, dup(output.get()));
    g_subprocess_launcher_take_stderr_fd(launcher, dup(errors.get()));
    set_defaults(launcher, patience);
    g_subprocess_launcher_set_child_setup(launcher, end_with_parent, GINT_TO_POINTER(SIGKILL), nullptr);

    std::vector<const char *> argv = {"rclone"};
    argv.insert(argv.end(), std::begin(COMMON_OPTIONS), std::end(COMMON_OPTIONS));
    for (const std::string &argument : arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    g_autoptr(GError) error = nullptr;
    GSubprocess *process = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
    if (process == nullptr)
        throw PlatformError(g_error_matches(error, G_SPAWN_ERROR, G_SPAWN_ERROR_NOENT) != FALSE
                                ? "a remote store needs the program rclone: apt-get install rclone"
                                : std::string("can't start rclone: ") + error->message);
    return process;
}

/// The last line that rclone logged, without the time and the level.
static std::string find_reason(const std::string &errors)
{
    static constexpr char STAMP[] = "^[0-9]{4}(/[0-9]{2}){2} [0-9]{2}(:[0-9]{2}){2} ";
    static constexpr size_t STAMP_LENGTH = 20;
    std::string reason;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
        if (g_regex_match_simple(STAMP, line.c_str(), G_REGEX_RAW, GRegexMatchFlags{}) != FALSE)
            reason = line.substr(STAMP_LENGTH);
        else if (reason.empty()) // not logged; behind what is, the rest of a server's answer
            reason = line;
    for (const char *level : {"ERROR : ", "CRITICAL: "})
        if (reason.starts_with(level))
            reason.erase(0, strlen(level));
    return escaped(reason.substr(0, MAX_REASON));
}

void Rclone::spend(gint64 microseconds) const
{
    if (left)
        *left -= microseconds;
}

void Rclone::pause(gint64 microseconds) const
{
    const gint64 length = std::clamp<gint64>(left.value_or(microseconds), 0, microseconds);
    g_usleep(static_cast<gulong>(length));
    spend(length);
}

Rclone::Result Rclone::run(const std::vector<std::string> &arguments, const std::string &input) const
{
    if (left && *left <= 0)
        throw TimeoutError(TOO_LATE);
    const Descriptor input_file = make_file(input);
    const Descriptor output = make_file("");
    const Descriptor errors = make_file("");
    const gint64 begin = g_get_monotonic_time();
    Wait wait;
    g_autoptr(GSubprocess) process = launch(arguments, patience, input_file, output, errors);
    wait.wait_for(process, left);
    spend(g_get_monotonic_time() - begin);
    if (wait.is_interrupted())
        throw InterruptedError("interrupted; what the remote store was asked to do may be done");
    if (wait.is_timed_out())
        throw TimeoutError(TOO_LATE);

    Result result{-1, read_from(output, 0), find_reason(read_from(errors, 0))};
    if (g_subprocess_get_if_exited(process) != FALSE)
        result.status = g_subprocess_get_exit_status(process);
    if (result.reason.empty())
        result.reason = result.status < 0 ? "rclone was ended by a signal" : "rclone gave no reason";
    return result;
}
