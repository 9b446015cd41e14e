#include "trace.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <sstream>
#include <utility>

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include "trace_options.h"

static std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value == nullptr ? "" : value;
}

// Formatting.

bool writes_json()
{
    static const bool is_json = variable(TRACE_FORMAT_VARIABLE) == "json";
    return is_json;
}

std::string quote(const std::string &text)
{
    g_autofree gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    g_autoptr(GString) quoted = g_string_new("\"");
    for (const gchar *next = valid; *next != '\0'; next = g_utf8_next_char(next)) {
        const gunichar character = g_utf8_get_char(next);
        if (character == '"' || character == '\\')
            g_string_append(quoted, "\\");
        // Escapes unprintable characters, which could control a terminal, except those that JSON can't write
        // as one escape.
        if (g_unichar_isprint(character) != FALSE || character > 0xffff)
            g_string_append_unichar(quoted, character);
        else
            g_string_append_printf(quoted, "\\u%04x", character);
    }
    return quoted->str + std::string("\"");
}

namespace
{

/// Guards the handles, the failures, the frames and the output. Never held while a traced call is made.
std::recursive_mutex mutex;

struct NamedHandle {
    std::string name;
    const void *owner;
};

// Never destroyed, since the service may make calls until the process ends.
std::map<const void *, NamedHandle> &handles = *new std::map<const void *, NamedHandle>;

struct InjectedFailure {
    std::string function;
    int call = 1;
    int code = -1;
};

} // namespace

std::string show_handle(const char *kind, const void *handle, const void *owner)
{
    const std::lock_guard lock(mutex);
    static std::map<std::string, int> counts;
    NamedHandle &named = handles[handle];
    if (named.name.empty())
        named.name = std::string(kind) + "#" + std::to_string(++counts[kind]);
    if (owner != nullptr && owner != handle)
        named.owner = owner;
    return writes_json() ? quote(named.name) : named.name;
}

void forget_handle(const void *handle)
{
    const std::lock_guard lock(mutex);
    std::erase_if(handles,
                  [&](const auto &known) { return known.first == handle || known.second.owner == handle; });
}

// Calls that are made to fail.

/// Parses the number after a mark, if the mark comes next. Returns false for an invalid number.
static bool parse_number(std::string_view &rest, char mark, int &number)
{
    if (!rest.starts_with(mark))
        return true;
    const auto [end, error] = std::from_chars(rest.data() + 1, rest.data() + rest.size(), number);
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    return error == std::errc();
}

static std::vector<InjectedFailure> parse_failures()
{
    std::istringstream entries(variable(TRACE_FAIL_VARIABLE));
    std::vector<InjectedFailure> failures;
    for (std::string entry; entries >> entry;) {
        InjectedFailure &failure = failures.emplace_back();
        std::string_view rest = entry;
        failure.function = rest.substr(0, rest.find_first_of("#="));
        rest.remove_prefix(failure.function.size());
        if (std::count(std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS), failure.function) > 0 &&
            parse_number(rest, '#', failure.call) && failure.call > 0 &&
            parse_number(rest, '=', failure.code) && rest.empty())
            continue;
        // A typing mistake must not look like a platform that works.
        fprintf(stderr, "libime-backup-trace: invalid entry in %s: %s\n", TRACE_FAIL_VARIABLE,
                quote(entry).c_str());
        _exit(EXIT_FAILURE);
    }
    return failures;
}

std::optional<int> take_failure(const std::string &function)
{
    const std::lock_guard lock(mutex);
    static const std::vector<InjectedFailure> failures = parse_failures();
    static std::map<std::string, int> calls;
    const int call = ++calls[function];
    for (const InjectedFailure &failure : failures)
        if (failure.function == function && failure.call == call)
            return failure.code;
    return std::nullopt;
}

// Output.

static int open_output()
{
    const std::string target = variable(TRACE_VARIABLE);
    if (target.empty())
        return STDERR_FILENO;
    if (target.size() < 6 && target.find_first_not_of("0123456789") == std::string::npos)
        return std::stoi(target);
    const int file = open(target.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    // Avoids the descriptor of a closed standard stream: output to that stream would end up in the trace.
    return file > STDERR_FILENO ? file : fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

void write_line(std::string line)
{
    const std::lock_guard lock(mutex);
    static const int file = open_output();
    const std::string thread = gettid() == getpid() ? "" : std::to_string(gettid());
    if (writes_json())
        line += ",\"thread\":" + (thread.empty() ? "null" : thread) + "}";
    else if (!thread.empty())
        line += "  on thread " + thread;
    line += "\n";
    // Blocks SIGPIPE, so that the service goes on when the trace's reader has exited.
    sigset_t broken_pipe;
    sigset_t before;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, &before);
    const int error = errno;
    ssize_t count = 0;
    while (!line.empty() && (count >= 0 || errno == EINTR)) {
        count = write(file, line.data(), line.size());
        line.erase(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    if (errno == EPIPE) {
        const timespec at_once = {};
        sigtimedwait(&broken_pipe, nullptr, &at_once);
    }
    errno = error;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Frame::Frame(const CallInfo &call, std::vector<ShownArgument> arguments_before)
    : failure(call.is_callback ? std::nullopt : take_failure(call.function)), info(call),
      arguments(std::move(arguments_before)), outer(innermost)
{
    const std::lock_guard lock(mutex);
    depth = outer != nullptr ? outer->depth + 1 : write_open_frames(outermost);
    innermost = this;
    if (outermost == nullptr)
        outermost = this;
}

size_t Frame::write_open_frames()
{
    const std::lock_guard lock(mutex);
    return write_open_frames(innermost != nullptr ? innermost : outermost);
}

size_t Frame::write_open_frames(Frame *frame)
{
    if (frame == nullptr)
        return 0;
    if (!std::exchange(frame->is_begin_written, true)) {
        write_open_frames(frame->outer);
        write_line(frame->describe("begin") + (writes_json() ? "" : " {"));
    }
    return frame->depth + 1;
}

void Frame::end(std::vector<ShownArgument> arguments_after, const std::string &result)
{
    const std::lock_guard lock(mutex);
    const auto duration = std::chrono::steady_clock::now() - start;
    const std::string microseconds =
        std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
    arguments = std::move(arguments_after);
    innermost = outer;
    if (outermost == this)
        outermost = nullptr;
    write_open_frames(outer);
    if (writes_json())
        write_line(describe(is_begin_written ? "end" : "call") +
                   ",\"result\":" + (result.empty() ? "null" : result) +
                   ",\"made_to_fail\":" + show(failure.has_value()) + ",\"us\":" + microseconds);
    else
        write_line((is_begin_written ? std::string(2 * depth, ' ') + "}" : describe("call")) +
                   (result.empty() ? "" : " = " + result) +
                   (failure ? "  made to fail" : "  " + microseconds + " \u00b5s"));
}

std::string Frame::describe(const char *event) const
{
    std::string all;
    std::vector<std::string> written;
    const char *rest = info.argument_names + 1;
    for (const auto &[text, is_written] : arguments) {
        const std::string name(rest, strcspn(rest, ",)"));
        all += all.empty() ? "" : writes_json() ? "," : ", ";
        all += writes_json() ? quote(name) + ":" + text : text + (is_written ? " (written)" : "");
        if (is_written)
            written.push_back(name);
        rest += name.size() + 2;
    }
    if (!writes_json())
        return std::string(2 * depth, ' ') + (info.is_callback ? "callback " : "") + info.function + "(" +
               all + ")";
    return R"({"event":)" + quote(event) + ",\"depth\":" + std::to_string(depth) +
           ",\"callback\":" + show(info.is_callback) + ",\"function\":" + quote(info.function) +
           ",\"arguments\":{" + all + "},\"written\":" + show(written);
}
