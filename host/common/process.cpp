#include "process.h"

#include <cerrno>
#include <iterator>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int SIGNALS[] = {SIGTERM, SIGINT};

void prepare_process()
{
    umask(077);
    // Opened the wrong way round: what is written there or read fails, as it would without the stream.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
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
