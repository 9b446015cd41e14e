#include "file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <glib.h>

#include "state.h"

FileLock::~FileLock()
{
    if (descriptor >= 0)
        close(descriptor);
}

bool FileLock::lock(int operation)
{
    if (descriptor < 0) {
        make_private_folder(file.parent_path());
        descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    if (descriptor >= 0 && flock(descriptor, operation) == 0)
        return true;
    if (errno == EWOULDBLOCK)
        return false;
    throw StateError("can't lock " + file.string() + ": " + g_strerror(errno));
}

void FileLock::acquire()
{
    lock(LOCK_EX);
}

bool FileLock::try_acquire()
{
    return lock(LOCK_EX | LOCK_NB);
}
