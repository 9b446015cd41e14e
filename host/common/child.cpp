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
/// How often to check for the end of a child without a pidfd.
static constexpr gint64 CHECK_INTERVAL_MS = 20;
static constexpr size_t STACK_SIZE = size_t{64} << 10;
/// Higher than each key of Child::files.
static constexpr int FIRST_FREE_DESCRIPTOR = 16;

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

/// The arguments and the result of execute().
struct ExecData {
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

/// Runs in the child, but in this process's memory. This process is suspended until the child calls exec or
/// exits.
static int execute(void *data)
{
    ExecData &exec_data = *static_cast<ExecData *>(data);
    std::map<int, int> &files = exec_data.child.files;
    prctl(PR_SET_PDEATHSIG, exec_data.child.end_signal);
    if (getppid() != exec_data.parent) // the parent was killed before prctl()
        return EXIT_FAILURE;
    signal(SIGPIPE, SIG_DFL); // this process may ignore it
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    // Move the files out of the way first: dup2() could overwrite a file that is still needed.
    for (auto &[number, file] : files)
        file = fcntl(file, F_DUPFD_CLOEXEC, FIRST_FREE_DESCRIPTOR);
    const bool has_files = std::all_of(
        files.begin(), files.end(), [](const auto &given) { return dup2(given.second, given.first) >= 0; });
    if (has_files)
        execvpe(exec_data.arguments[0], exec_data.arguments.data(), exec_data.environment.data());
    exec_data.error = has_files ? errno : EMFILE;
    return EXIT_FAILURE;
}

/// @param error set to errno if the program could not be started, else to 0
/// @return the child's process id
static pid_t start(Child &child, int &error)
{
    child.arguments.insert(child.arguments.begin(), child.program);
    std::vector<std::string> variables;
    for (const auto &[name, value] : child.environment)
        variables.emplace_back(name).append("=").append(value);
    ExecData exec_data{child, pointers_to(child.arguments), pointers_to(variables)};
    // Sharing the memory is faster: copying it would take longer than all the rest.
    const auto stack = std::make_unique_for_overwrite<char[]>(STACK_SIZE);
    const pid_t process =
        clone(execute, stack.get() + STACK_SIZE, CLONE_VM | CLONE_VFORK | SIGCHLD, &exec_data);
    error = process < 0 ? errno : exec_data.error;
    if (process > 0 && error != 0)
        waitpid(process, nullptr, 0);
    return process;
}

ChildResult run_child(Child child)
{
    TerminationSignals signals(child.on_late_signal);
    ChildResult result;
    int ends[2] = {-1, -1};
    if (child.output >= 0 && pipe2(ends, O_CLOEXEC) != 0)
        return {.error = errno};
    const Descriptor output(ends[0]);
    const Descriptor input(ends[1]);
    if (output) {
        // A grandchild may keep the pipe open after the child exits.
        fcntl(output.get(), F_SETFL, O_NONBLOCK);
        child.files[child.output] = input.get();
    }
    const pid_t process = start(child, result.error);
    if (result.error != 0)
        return result;

    const auto stop = [&](StopReason reason) {
        kill(process, result.stopped == StopReason::none ? child.end_signal : SIGKILL);
        if (result.stopped == StopReason::none)
            result.stopped = reason;
    };
    const auto read_some = [&] {
        char text[4096];
        const ssize_t count = read(output.get(), text, sizeof text);
        if (count > 0)
            child.on_output({text, static_cast<size_t>(count)});
        return count > 0;
    };
    const Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    gint64 deadline = child.time_limit_us ? g_get_monotonic_time() + *child.time_limit_us : G_MAXINT64;
    pollfd files[] = {
        {ended.get(), POLLIN, 0}, {TerminationSignals::file(), POLLIN, 0}, {output.get(), POLLIN, 0}};
    while (waitpid(process, &result.status, WNOHANG) == 0) {
        const gint64 left_ms = (deadline - g_get_monotonic_time()) / 1000 + 1;
        poll(files, std::size(files),
             static_cast<int>(std::clamp<gint64>(left_ms, 0, ended ? G_MAXINT : CHECK_INTERVAL_MS)));
        if (signals.take()) {
            stop(StopReason::interrupted);
        } else if (g_get_monotonic_time() >= deadline) {
            stop(StopReason::timed_out);
            deadline = g_get_monotonic_time() + GRACE_US;
        }
        if (files[2].revents != 0)
            read_some();
    }
    while (read_some()) {
    }
    return result;
}
