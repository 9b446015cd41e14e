#include "child.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "files.h"
#include "signals.h"

static constexpr gint64 GRACE_US = 2'000'000;
/// How often to look for the end of a process that can't be polled.
static constexpr gint64 LOOK_MS = 20;
static constexpr size_t STACK_SIZE = size_t{64} << 10;
/// Higher than any that a child is given a file under.
static constexpr int FREE_DESCRIPTOR = 16;

Environment current_environment()
{
    Environment environment;
    for (char **variable = environ; *variable != nullptr; variable++) {
        const std::string_view text = *variable;
        const size_t equals = text.find('=');
        if (equals != std::string_view::npos)
            environment.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    return environment;
}

namespace
{

struct Start {
    std::map<int, int> files;
    int end_signal;
    std::vector<char *> arguments;
    std::vector<char *> environment;
    pid_t parent = getpid();
    int error = 0;
};

} // namespace

static std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers),
                   [](std::string &text) { return text.data(); });
    pointers.push_back(nullptr);
    return pointers;
}

/// Runs in the new process, but on the memory of this one, which stands still until the program takes over.
static int execute(void *data)
{
    Start &start = *static_cast<Start *>(data);
    prctl(PR_SET_PDEATHSIG, start.end_signal);
    if (getppid() != start.parent) // it was killed before
        return EXIT_FAILURE;
    signal(SIGPIPE, SIG_DFL); // this process may ignore it
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    for (auto &[number, file] : start.files) // one's number may be that of another here
        file = fcntl(file, F_DUPFD_CLOEXEC, FREE_DESCRIPTOR);
    const bool is_given = std::all_of(start.files.begin(), start.files.end(),
                                      [](const auto &given) { return dup2(given.second, given.first) >= 0; });
    if (is_given)
        execvpe(start.arguments[0], start.arguments.data(), start.environment.data());
    start.error = errno;
    return EXIT_FAILURE;
}

/// @param error why there is none, as errno has it
static pid_t start(const Child &child, int &error)
{
    std::vector<std::string> arguments = {child.program};
    arguments.insert(arguments.end(), child.arguments.begin(), child.arguments.end());
    std::vector<std::string> variables;
    for (const auto &[name, value] : child.environment)
        variables.emplace_back(name).append("=").append(value);
    Start launch{child.files, child.end_signal, pointers_to(arguments), pointers_to(variables)};
    // A copy of this process's memory would take longer than all the rest.
    const auto stack = std::make_unique_for_overwrite<char[]>(STACK_SIZE);
    const pid_t process = clone(execute, stack.get() + STACK_SIZE, CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
    error = process < 0 ? errno : launch.error;
    if (process > 0 && error != 0)
        waitpid(process, nullptr, 0);
    return process;
}

/// @return whether there was anything
static bool read_some(const Descriptor &output, const Child &child)
{
    std::array<char, 4096> text = {};
    const ssize_t count = read(output.get(), text.data(), text.size());
    if (count > 0)
        child.on_output({text.data(), static_cast<size_t>(count)});
    return count > 0;
}

ChildEnd run_child(Child child)
{
    TerminationSignals signals(child.on_late_signal);
    ChildEnd end;
    Descriptor output;
    Descriptor input;
    if (child.output >= 0) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            end.error = errno;
            return end;
        }
        output = Descriptor(ends[0]);
        input = Descriptor(ends[1]);
        // What the child started may hold the other end when the child has ended.
        fcntl(output.get(), F_SETFL, O_NONBLOCK);
        child.files[child.output] = input.get();
    }
    const pid_t process = start(child, end.error);
    if (end.error != 0)
        return end;

    const auto stop = [&](Stop why) {
        kill(process, end.stopped == Stop::none ? child.end_signal : SIGKILL);
        if (end.stopped == Stop::none)
            end.stopped = why;
    };
    const Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    gint64 deadline = child.microseconds ? g_get_monotonic_time() + *child.microseconds : G_MAXINT64;
    pollfd files[] = {
        {ended.get(), POLLIN, 0}, {TerminationSignals::file(), POLLIN, 0}, {output.get(), POLLIN, 0}};
    while (waitpid(process, &end.status, WNOHANG) == 0) {
        const gint64 left_ms = (deadline - g_get_monotonic_time()) / 1000 + 1;
        poll(files, std::size(files),
             static_cast<int>(std::clamp<gint64>(left_ms, 0, ended ? G_MAXINT : LOOK_MS)));
        if (signals.take()) {
            stop(Stop::interrupted);
        } else if (g_get_monotonic_time() >= deadline) {
            stop(Stop::timed_out);
            deadline = g_get_monotonic_time() + GRACE_US;
        }
        if (files[2].revents != 0)
            read_some(output, child);
    }
    while (read_some(output, child)) {
    }
    return end;
}
