#include "process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <glib.h>

#include "files.h"

void prepare_process()
{
    umask(077);
    // Opened the wrong way round: what is written there or read fails, as it would without the stream.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

void end_with_client()
{
    const char *name = g_getenv(CLIENT_VARIABLE);
    const pid_t client = name == nullptr ? 0 : atoi(name);
    if (client <= 0)
        return;
    if (getppid() == client) // else something stands between the two
        prctl(PR_SET_PDEATHSIG, SIGTERM);
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, client, 0)));
    const bool is_unknown = !process && errno == ESRCH;
    pollfd end = {process.get(), POLLIN, 0};
    if (is_unknown || (process && poll(&end, 1, 0) == 1)) // it was killed before
        raise(SIGTERM);
}

void end_with_parent(void *signal)
{
    prctl(PR_SET_PDEATHSIG, GPOINTER_TO_INT(signal));
}
