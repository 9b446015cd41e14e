#include "signals.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

#include <glib-unix.h>

HeldSignals::HeldSignals()
{
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : TERMINATION_SIGNALS)
        sigaddset(&held, signal);
    sigprocmask(SIG_BLOCK, &held, &before);
}

HeldSignals::~HeldSignals()
{
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

/// Where the signals' handler leaves word for the main loop.
static int word = -1;

static void leave_word(int)
{
    const int before = errno;
    eventfd_write(word, 1);
    errno = before;
}

gboolean TerminationSignals::on_word(int file, GIOCondition, void *signals)
{
    eventfd_t count = 0;
    eventfd_read(file, &count);
    static_cast<TerminationSignals *>(signals)->on_signal();
    return G_SOURCE_CONTINUE;
}

TerminationSignals::TerminationSignals(std::function<void()> call) : on_signal(std::move(call))
{
    word = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    source = g_unix_fd_add(word, G_IO_IN, on_word, this);
    struct sigaction action = {};
    action.sa_handler = leave_word;
    action.sa_flags = SA_RESTART;
    for (const int signal : TERMINATION_SIGNALS)
        sigaction(signal, &action, nullptr);
}

TerminationSignals::~TerminationSignals()
{
    for (const int signal : TERMINATION_SIGNALS)
        std::signal(signal, SIG_DFL);
    g_source_remove(source);
    close(word);
}
