#include "process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"

using Clock = std::chrono::steady_clock;

static constexpr int SIGNALS[] = {SIGTERM, SIGINT};

void prepare_process()
{
    umask(077);
    // Opened the wrong way round: what is written there or read fails, as it would without the stream.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

static std::optional<Clock::time_point> end_of_time;

void limit_time(double seconds)
{
    end_of_time =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::optional<std::int64_t> time_left()
{
    if (!end_of_time)
        return std::nullopt;
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*end_of_time - Clock::now());
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

static void on_signal(int)
{
    const int error = errno;
    eventfd_write(TerminationSignals::file(), 1);
    errno = error;
}

TerminationSignals::TerminationSignals(void (*later)(int))
{
    file(); // not for the first time in the handler
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(SIGNALS); i++) {
        sigaction(SIGNALS[i], &action, &before[i]);
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
    if (take() || (has_told && before[0].sa_handler != SIG_DFL))
        raise(SIGNALS[0]);
}

bool TerminationSignals::take()
{
    eventfd_t count = 0;
    const bool has_come = eventfd_read(file(), &count) == 0;
    has_told = has_told || has_come;
    return has_come;
}
