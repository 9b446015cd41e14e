#include "rclone.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child.h"
#include "contact.h"
#include "errors.h"
#include "files.h"
#include "text.h"

/// For all subcommands, whatever the environment says: nobody is asked for anything, what is to be done is
/// done, and standard output holds what was asked for.
static const char *const COMMON_OPTIONS[] = {"--ask-password=false", "--interactive=false", "--dry-run=false",
                                             "--progress=false"};

/// Where the environment says nothing else: what fails is tried once more.
static constexpr std::pair<const char *, const char *> TRIES[] = {{"RCLONE_RETRIES", "1"},
                                                                  {"RCLONE_LOW_LEVEL_RETRIES", "2"}};
/// Of the time that there is, what is spent on waiting for a silent server: twice this leaves time to tell of
/// it.
static constexpr double SHARE_OF_PATIENCE = 0.25;

/// How a line of its log begins; a 0 stands for any digit.
static constexpr std::string_view STAMP = "0000/00/00 00:00:00 ";
static constexpr size_t MAX_REASON = 400;
static constexpr char TOO_LATE[] = "rclone did not finish in time";

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

/// What rclone is started with, but for its files.
static Child make_child(const std::vector<std::string> &arguments, double patience)
{
    Child rclone{.program = "rclone"};
    rclone.arguments.assign(std::begin(COMMON_OPTIONS), std::end(COMMON_OPTIONS));
    rclone.arguments.insert(rclone.arguments.end(), arguments.begin(), arguments.end());
    Environment &environment = rclone.environment;
    environment.merge(Environment(std::begin(TRIES), std::end(TRIES)));
    for (const char *variable : {"RCLONE_CONTIMEOUT", "RCLONE_TIMEOUT"})
        environment.try_emplace(variable, std::to_string(static_cast<int>(patience * 1000)) + "ms");
    // What traces the service is not for what it starts.
    std::erase_if(environment, [](const auto &variable) {
        return variable.first == "LD_PRELOAD" || variable.first.starts_with("IME_BACKUP_TRACE");
    });
    rclone.end_signal = SIGKILL;
    return rclone;
}

/// Whether a line begins with the time at which rclone logged it.
static bool is_logged(const std::string &line)
{
    return line.size() >= STAMP.size() &&
           std::equal(STAMP.begin(), STAMP.end(), line.begin(), [](char form, char character) {
               return form == '0' ? g_ascii_isdigit(character) != FALSE : form == character;
           });
}

/// The last line that rclone logged, without the time and the level.
static std::string find_reason(const std::string &errors)
{
    std::string reason;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
        if (is_logged(line))
            reason = line.substr(STAMP.size());
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
    Child rclone = make_child(arguments, patience);
    rclone.files = {
        {STDIN_FILENO, input_file.get()}, {STDOUT_FILENO, output.get()}, {STDERR_FILENO, errors.get()}};
    rclone.microseconds = left;
    const gint64 begin = g_get_monotonic_time();
    const ChildEnd end = run_child(std::move(rclone));
    spend(g_get_monotonic_time() - begin);
    if (end.error == ENOENT)
        throw PlatformError("a remote store needs the program rclone: apt-get install rclone");
    if (end.error != 0)
        throw PlatformError(std::string("can't start rclone: ") + strerror(end.error));
    if (end.stopped == Stop::interrupted)
        throw InterruptedError("interrupted; what the remote store was asked to do may be done");
    if (end.stopped == Stop::timed_out)
        throw TimeoutError(TOO_LATE);

    Result result{WIFEXITED(end.status) ? WEXITSTATUS(end.status) : -1, read_from(output, 0),
                  find_reason(read_from(errors, 0))};
    if (result.reason.empty())
        result.reason = result.status < 0 ? "rclone was ended by a signal" : "rclone gave no reason";
    return result;
}
