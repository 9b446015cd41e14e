#include "child.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "files.h"
#include "process.h"

static constexpr gint64 GRACE_US = 2'000'000;
/// How often to look for the end of a process that can't be polled.
static constexpr gint64 LOOK_MS = 20;
static constexpr size_t STACK_SIZE = size_t{64} << 10;
/// Higher than any that a child is given a file under.
static constexpr int FREE_DESCRIPTOR = 16;

Environment current_environment()
{
    Environment environment;
    for (const char *const *variable = environ; *variable != nullptr; variable++)
        if (const char *equals = strchr(*variable, '='); equals != nullptr)
            environment.emplace(std::string(*variable, equals), equals + 1);
    return environment;
}

namespace
{

struct Start {
    Child &child;
    std::vector<char *> arguments;
    std::vector<char *> environment;
    pid_t parent = getpid();
    int error = 0;
};

} // namespace

static std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Runs in the new process, but on the memory of this one, which stands still until the program takes over.
static int execute(void *data)
{
    Start &start = *static_cast<Start *>(data);
    std::map<int, int> &files = start.child.files;
    prctl(PR_SET_PDEATHSIG, start.child.end_signal);
    if (getppid() != start.parent) // it was killed before
        return EXIT_FAILURE;
    signal(SIGPIPE, SIG_DFL); // this process may ignore it
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    for (auto &[number, file] : files) // one's number may be that of another here
        file = fcntl(file, F_DUPFD_CLOEXEC, FREE_DESCRIPTOR);
    const bool has_files = std::all_of(
        files.begin(), files.end(), [](const auto &given) { return dup2(given.second, given.first) >= 0; });
    if (has_files)
        execvpe(start.arguments[0], start.arguments.data(), start.environment.data());
    start.error = has_files ? errno : EMFILE;
    return EXIT_FAILURE;
}

/// @param error why there is none, as errno has it
static pid_t start(Child &child, int &error)
{
    child.arguments.insert(child.arguments.begin(), child.program);
    std::vector<std::string> variables;
    for (const auto &[name, value] : child.environment)
        variables.emplace_back(name).append("=").append(value);
    Start launch{child, pointers_to(child.arguments), pointers_to(variables)};
    // A copy of this process's memory would take longer than all the rest.
    const auto stack = std::make_unique_for_overwrite<char[]>(STACK_SIZE);
    const pid_t process = clone(execute, stack.get() + STACK_SIZE, CLONE_VM | CLONE_VFORK | SIGCHLD, &launch);
    error = process < 0 ? errno : launch.error;
    if (process > 0 && error != 0)
        waitpid(process, nullptr, 0);
    return process;
}

ChildEnd run_child(Child child)
{
    TerminationSignals signals(child.on_late_signal);
    ChildEnd end;
    int ends[2] = {-1, -1};
    if (child.output >= 0 && pipe2(ends, O_CLOEXEC) != 0)
        return {.error = errno};
    const Descriptor output(ends[0]);
    const Descriptor input(ends[1]);
    if (output) {
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
    const auto read_some = [&] {
        char text[4096];
        const ssize_t count = read(output.get(), text, sizeof text);
        if (count > 0)
            child.on_output({text, static_cast<size_t>(count)});
        return count > 0;
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
            read_some();
    }
    while (read_some()) {
    }
    return end;
}
