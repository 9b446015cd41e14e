#include "process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"
#include "files.h"

using Clock = std::chrono::steady_clock;

static constexpr int SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};

/// Most file descriptors that a command or a request opens.
static constexpr int NEEDED_DESCRIPTORS = 20;

void prepare_process()
{
    umask(077);
    // Opened in the opposite mode, so that I/O still fails.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    // Some libraries abort the process when it runs out of descriptors.
    std::vector<Descriptor> spare(NEEDED_DESCRIPTORS);
    for (Descriptor &descriptor : spare)
        if (descriptor = Descriptor(dup(STDERR_FILENO)); !descriptor)
            throw PlatformError(std::string("can't open enough files: ") + strerror(errno));
}

static std::optional<Clock::time_point> deadline;

void limit_time(double seconds)
{
    deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::optional<std::int64_t> time_left()
{
    if (!deadline)
        return std::nullopt;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*deadline - Clock::now());
    return std::max<std::int64_t>(left.count(), 0);
}

void wait_for_another(const std::string &who)
{
    static constexpr int PAUSE_MS = 10;
    if (time_left() == 0)
        throw TimeoutError(who + " did not finish in time");
    pollfd signals = {TerminationSignals::file(), POLLIN, 0};
    if (poll(&signals, 1, PAUSE_MS) > 0)
        throw InterruptedError("interrupted while waiting for " + who);
}

/// Never closed: a handler on another thread may be about to write to it.
int TerminationSignals::file()
{
    static const int count = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return count;
}

static volatile std::sig_atomic_t last_signal = SIGTERM;

static void on_signal(int signal)
{
    const int error = errno;
    last_signal = signal;
    eventfd_write(TerminationSignals::file(), 1);
    errno = error;
}

TerminationSignals::TerminationSignals(void (*later)(int))
{
    if (file() < 0) // made here, since the handler must not make it
        throw PlatformError("can't catch signals: too many open files");
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(SIGNALS); i++) {
        sigaction(SIGNALS[i], nullptr, &before[i]);
        if (before[i].sa_handler == SIG_IGN) // set by the parent process
            continue;
        sigaction(SIGNALS[i], &action, nullptr);
        if (later != nullptr) {
            before[i] = action;
            before[i].sa_handler = later;
        }
    }
}

TerminationSignals::~TerminationSignals()
{
    for (size_t i = 0; i < std::size(SIGNALS); i++)
        sigaction(SIGNALS[i], &before[i], nullptr);
    const bool is_unreported = take();
    struct sigaction current = {};
    sigaction(last_signal, nullptr, &current);
    if (is_unreported || (was_reported && current.sa_handler != SIG_DFL))
        raise(last_signal);
}

bool TerminationSignals::take()
{
    eventfd_t count = 0;
    const bool has_come = eventfd_read(file(), &count) == 0;
    was_reported = was_reported || has_come;
    return has_come;
}
