#include "process.h"

#include <initializer_list>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

void prepare_process()
{
    umask(077);
    // Opened the wrong way round: what is written there or read fails, as it would without the stream.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}
