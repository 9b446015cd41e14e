#include "service_log.h"

#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "paths.h"
#include "text.h"

static constexpr off_t MAX_LOG_SIZE = off_t{1} << 20;
static constexpr off_t MAX_SHOWN_SIZE = off_t{64} << 10;
static constexpr size_t SHOWN_LINES = 8;
static constexpr int FLAGS = O_RDWR | O_CREAT | O_APPEND;

static off_t size_of(const Descriptor &file)
{
    return lseek(file.get(), 0, SEEK_END);
}

ServiceLog::ServiceLog() : file(state_root() / SERVICE_LOG)
{
    make_private_folder(file.parent_path());
    log = open_file(file, FLAGS);
    if (size_of(log) > MAX_LOG_SIZE)
        rotate();
    begin = size_of(log);
}

/// Starts a new log, and keeps the old one. Of several processes that find it too large one does, and nothing
/// fails when none can.
void ServiceLog::rotate()
{
    if (flock(log.get(), LOCK_EX | LOCK_NB) != 0)
        return;
    struct stat opened = {};
    struct stat named = {};
    const bool is_current = fstat(log.get(), &opened) == 0 && stat(file.c_str(), &named) == 0 &&
                            opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
    if (is_current && rename(file.c_str(), (file.string() + ".1").c_str()) != 0)
        return;
    log = open_file(file, FLAGS);
}

std::string ServiceLog::last_lines() const
{
    std::istringstream stream(read_from(log, std::max(begin, size_of(log) - MAX_SHOWN_SIZE)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    const size_t first = lines.size() > SHOWN_LINES ? lines.size() - SHOWN_LINES : 0;
    std::string text;
    for (size_t i = first; i < lines.size(); i++)
        text += "  " + escaped(lines[i]) + "\n";
    return text + "The service's log is " + escaped(file.string()) + "\n";
}
