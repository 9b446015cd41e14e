#include "output.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

#include "trace_options.h"

static std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value == nullptr ? "" : value;
}

static int open_output()
{
    const std::string place = variable(TRACE_VARIABLE);
    if (place.empty())
        return STDERR_FILENO;
    if (place.size() < 6 && place.find_first_not_of("0123456789") == std::string::npos)
        return std::stoi(place);
    const int file = open(place.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    // Not in the place of a standard stream that is closed: what is written there would end up in the trace.
    return file > STDERR_FILENO ? file : fcntl(file, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

bool writes_json()
{
    static const bool is_json = variable(TRACE_FORMAT_VARIABLE) == "json";
    return is_json;
}

static void write_all(int file, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(file, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return;
        done += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
}

void write_line(const std::string &line)
{
    static const int file = open_output();
    // That nobody reads the trace any more is no reason for the service to end.
    sigset_t broken_pipe;
    sigset_t before;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, &before);
    const int error = errno;
    write_all(file, line + "\n");
    if (errno == EPIPE) {
        const timespec at_once = {};
        sigtimedwait(&broken_pipe, nullptr, &at_once);
    }
    errno = error;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
