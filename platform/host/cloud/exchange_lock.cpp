#include "exchange_lock.h"

#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <unistd.h>

#include <glib.h>

#include "state.h"

bool ExchangeLock::try_acquire()
{
    const std::filesystem::path file = state_root() / "exchange.lock";
    if (descriptor < 0) {
        make_private_folder(file.parent_path());
        descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    if (descriptor >= 0 && flock(descriptor, LOCK_EX | LOCK_NB) == 0)
        return true;
    if (errno == EWOULDBLOCK)
        return false;
    throw HostError("can't lock " + file.string() + ": " + g_strerror(errno));
}

void ExchangeLock::release()
{
    if (descriptor >= 0)
        close(descriptor);
    descriptor = -1;
}
