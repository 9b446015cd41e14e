#include "files.h"

#include <cstdio>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

#include <glib.h>

#include "errors.h"
#include "process.h"

namespace fs = std::filesystem;

static constexpr mode_t PRIVATE_FOLDER = 0700;
static constexpr mode_t PRIVATE_FILE = 0600;
/// Suffix of the temporary file that replaces another.
static constexpr char TEMPORARY_SUFFIX[] = ".new";
static constexpr size_t BUFFER_SIZE = size_t{64} << 10;

/// ": " and the text of errno.
static std::string error_text()
{
    return std::string(": ") + g_strerror(errno);
}

Descriptor open_file(const fs::path &file, int flags)
{
    Descriptor descriptor(open(file.c_str(), flags | O_CLOEXEC | O_NONBLOCK, PRIVATE_FILE));
    if (!descriptor)
        throw UnreadableError("can't open " + file.string() + error_text());
    struct stat status = {};
    if (fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode))
        throw PlatformError("can't use " + file.string() + ": it is not a regular file");
    return descriptor;
}

std::string read_to_end(const Descriptor &file, size_t max_size)
{
    std::string content;
    std::string buffer(BUFFER_SIZE, '\0');
    ssize_t count = 0;
    while ((count = read(file.get(), buffer.data(), buffer.size())) > 0) {
        content.append(buffer, 0, static_cast<size_t>(count));
        if (content.size() > max_size)
            throw HostError("it is larger than " + std::to_string(max_size) + " bytes");
    }
    if (count < 0)
        throw UnreadableError("it can't be read" + error_text());
    return content;
}

std::string read_file(const fs::path &file, size_t max_size)
{
    return read_to_end(open_file(file, O_RDONLY), max_size);
}

std::string read_from(const Descriptor &file, off_t offset)
{
    std::string content;
    std::string buffer(BUFFER_SIZE, '\0');
    ssize_t count = 0;
    while ((count = pread(file.get(), buffer.data(), buffer.size(), offset)) > 0) {
        content.append(buffer, 0, static_cast<size_t>(count));
        offset += count;
    }
    return content;
}

bool write_at(const Descriptor &file, off_t offset, const std::string &content)
{
    for (std::string_view rest = content; !rest.empty();) {
        const ssize_t count = pwrite(file.get(), rest.data(), rest.size(), offset);
        if (count < 0)
            return false;
        rest.remove_prefix(static_cast<size_t>(count));
        offset += count;
    }
    return true;
}

bool sync_folder(const fs::path &folder)
{
    const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && fsync(descriptor.get()) == 0;
}

bool sync_file(const fs::path &file)
{
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return descriptor && fdatasync(descriptor.get()) == 0 && sync_folder(file.parent_path());
}

/// Writes `content` to a temporary file beside `file`, and calls `put_in_place` to rename the temporary file.
static void write_file(const fs::path &file, const std::string &content, bool synced,
                       bool (*put_in_place)(const char *from, const char *to))
{
    make_private_folder(file.parent_path());
    const fs::path temporary = file.string() + TEMPORARY_SUFFIX;
    unlink(temporary.c_str());
    const Descriptor descriptor(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, PRIVATE_FILE));
    const bool written =
        descriptor && write_at(descriptor, 0, content) && (!synced || fsync(descriptor.get()) == 0);
    if (!written || !put_in_place(temporary.c_str(), file.c_str())) {
        const std::string reason = error_text();
        unlink(temporary.c_str());
        throw HostError("can't write " + file.string() + reason);
    }
}

void remove_file_durably(const fs::path &file)
{
    if (unlink(file.c_str()) != 0 || !sync_folder(file.parent_path()))
        throw HostError("can't remove " + file.string() + error_text());
}

void replace_file(const fs::path &file, const std::string &content)
{
    write_file(file, content, false, [](const char *from, const char *to) {
        // Some file systems flush a file to the disk when it is renamed over another, which takes ten times
        // as long. They don't when the two files exchange names.
        struct stat old = {};
        if (lstat(to, &old) == 0 && S_ISREG(old.st_mode) &&
            renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE) == 0) {
            unlink(from);
            return true;
        }
        return rename(from, to) == 0;
    });
}

void replace_file_durably(const fs::path &file, const std::string &content)
{
    write_file(file, content, true, [](const char *from, const char *to) { return rename(from, to) == 0; });
    if (!sync_folder(file.parent_path()))
        throw HostError("can't write " + file.string() + error_text());
}

void create_file_durably(const fs::path &file, const std::string &content)
{
    write_file(file, content, true, [](const char *from, const char *to) {
        if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
            return true;
        // Some file systems do not support RENAME_NOREPLACE. The check is enough, since writers take turns.
        return errno == EINVAL && access(to, F_OK) != 0 && rename(from, to) == 0;
    });
    if (!sync_folder(file.parent_path())) {
        const std::string reason = error_text();
        unlink(file.c_str());
        throw HostError("can't write " + file.string() + reason);
    }
}

void require_creatable(const fs::path &file, const std::string &content)
{
    write_file(file, content, false, [](const char *from, const char *) { return unlink(from) == 0; });
}

static bool make_folder(const fs::path &folder)
{
    int result = mkdir(folder.c_str(), PRIVATE_FOLDER);
    // Retry only once: some file systems return ENOENT for a folder that can't be made at all.
    if (result != 0 && errno == ENOENT && folder.has_relative_path() && make_folder(folder.parent_path()))
        result = mkdir(folder.c_str(), PRIVATE_FOLDER);
    if (result == 0) {
        sync_folder(folder.parent_path());
        return true;
    }
    std::error_code ignored;
    return errno == EEXIST && fs::is_directory(folder, ignored);
}

void make_private_folder(const fs::path &folder)
{
    std::error_code ignored;
    if (!fs::is_directory(folder, ignored) && !make_folder(folder))
        throw PlatformError("can't make the folder " + folder.string() + error_text());
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        throw PlatformError("can't write in the folder " + folder.string() + error_text());
}

bool is_usable_folder(const fs::path &folder)
{
    std::error_code error;
    fs::path existing = folder;
    // A dangling link counts as existing: no folder can be made under its name.
    while (!fs::exists(fs::symlink_status(existing, error)) && existing.has_relative_path())
        existing = existing.parent_path();
    return fs::is_directory(existing, error) && access(existing.c_str(), W_OK | X_OK) == 0;
}

void require_writable_file(const fs::path &file)
{
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(file, ignored)))
        open_file(file, O_RDWR);
    else if (!is_usable_folder(file.parent_path()))
        throw PlatformError("can't write in " + file.parent_path().string());
}

void require_replaceable(const fs::path &file)
{
    std::error_code ignored;
    if (!is_usable_folder(file.parent_path()))
        throw PlatformError("can't write in " + file.parent_path().string());
    for (const fs::path &name : {file, fs::path(file.string() + TEMPORARY_SUFFIX)})
        if (fs::is_directory(fs::symlink_status(name, ignored)))
            throw PlatformError("can't replace " + name.string() + ": it is a folder");
}

void FileLock::acquire(const std::string &who)
{
    while (!try_acquire())
        wait_for_another(who);
}

bool FileLock::share()
{
    while (!lock(LOCK_SH | LOCK_NB))
        wait_for_another("another process");
    return true;
}

bool FileLock::lock(int operation)
{
    if (!descriptor) {
        make_private_folder(file.parent_path());
        descriptor = open_file(file, O_RDWR | O_CREAT | O_NOFOLLOW);
    }
    if (TEMP_FAILURE_RETRY(flock(descriptor.get(), operation)) == 0)
        return true;
    if (errno != EWOULDBLOCK)
        throw PlatformError("can't lock " + file.string() + error_text());
    return false;
}
