// This library is preloaded into a program. It records each change below the folder $CRASH_FOLDER in the file
// $CRASH_RECORD. Each successful call is a line of tab-separated fields: the call, the path, a number or a
// second path, and the data in hexadecimal. Before each call, it also records which of the files
// $CRASH_WATCHED have changed: other programs write these.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

template <class Function>
static Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

static std::string variable(const char *name)
{
    const char *value = getenv(name);
    return value == nullptr ? "" : value;
}

static void write_record(const char *call, const std::string &path, const std::string &argument,
                         std::string_view data)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string line = std::string(call) + '\t' + path + '\t' + argument + '\t';
    for (const char c : data) {
        line += DIGITS[static_cast<unsigned char>(c) >> 4];
        line += DIGITS[static_cast<unsigned char>(c) & 15];
    }
    line += '\n';
    // Opened each time, since a program that starts another one renumbers descriptors.
    const long record =
        syscall(SYS_openat, AT_FDCWD, variable("CRASH_RECORD").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (syscall(SYS_write, record, line.data(), line.size()) != static_cast<long>(line.size()))
        abort();
    syscall(SYS_close, record);
}

static void look_at_watched()
{
    // Never destroyed, since calls are recorded until the process ends.
    static auto &known = *new std::map<std::string, std::string>;
    std::istringstream paths(variable("CRASH_WATCHED"));
    for (std::string path; std::getline(paths, path, ':');) {
        std::ostringstream content;
        content << std::ifstream(path).rdbuf();
        if (std::string &last = known[path]; last != content.str()) {
            last = content.str();
            write_record("seen", path, "", last);
        }
    }
}

static std::string path_of(int file)
{
    std::error_code ignored;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored);
}

/// Makes a call, and records it if it succeeds and concerns a path below the folder.
template <class Call>
static auto record(const char *name, const std::string &path, const std::string &argument,
                   std::string_view data, Call call)
{
    const std::string folder = variable("CRASH_FOLDER");
    if (path != folder && !path.starts_with(folder + "/"))
        return call();
    const int error_before = errno;
    look_at_watched();
    errno = error_before;
    const auto result = call();
    const int error = errno;
    if (result >= 0)
        write_record(name, path, argument, data.substr(0, static_cast<size_t>(data.empty() ? 0 : result)));
    errno = error;
    return result;
}

static int record_open(const char *name, const char *path, int flags, mode_t mode)
{
    const auto open_it = [&] { return next<int(const char *, int, ...)>(name)(path, flags, mode); };
    const bool makes = (flags & O_CREAT) != 0 && faccessat(AT_FDCWD, path, F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    if (!makes && (flags & O_TRUNC) == 0)
        return open_it();
    return record(makes ? "create" : "truncate", path, "0", "", open_it);
}

/// Replaces open(). It always passes a mode, which the real function ignores without O_CREAT.
#define RECORDED_OPEN(name)                                                                                  \
    int recorded_##name(const char *path, int flags, mode_t mode) __asm__(#name);                            \
    int recorded_##name(const char *path, int flags, mode_t mode)                                            \
    {                                                                                                        \
        return record_open(#name, path, flags, mode);                                                        \
    }
RECORDED_OPEN(open)
RECORDED_OPEN(open64)

#define RECORDED_WRITE(name)                                                                                 \
    ssize_t name(int file, const void *data, size_t size, off_t offset)                                      \
    {                                                                                                        \
        return record("write", path_of(file), std::to_string(offset),                                        \
                      {static_cast<const char *>(data), size},                                               \
                      [&] { return next<decltype(name)>(#name)(file, data, size, offset); });                \
    }
RECORDED_WRITE(pwrite)
RECORDED_WRITE(pwrite64)

#define RECORDED(name, call, parameters, path, argument, ...)                                                \
    int name parameters                                                                                      \
    {                                                                                                        \
        return record(call, path, argument, "", [&] { return next<decltype(name)>(#name)(__VA_ARGS__); });   \
    }
RECORDED(ftruncate, "truncate", (int file, off_t size) noexcept, path_of(file), std::to_string(size), file,
         size)
RECORDED(ftruncate64, "truncate", (int file, off64_t size) noexcept, path_of(file), std::to_string(size),
         file, size)
RECORDED(fsync, "sync", (int file), path_of(file), "", file)
RECORDED(fdatasync, "sync", (int file), path_of(file), "", file)
RECORDED(mkdir, "mkdir", (const char *path, mode_t mode) noexcept, path, "", path, mode)
RECORDED(rmdir, "remove", (const char *path) noexcept, path, "", path)
RECORDED(unlink, "remove", (const char *path) noexcept, path, "", path)
RECORDED(remove, "remove", (const char *path) noexcept, path, "", path)
RECORDED(rename, "rename", (const char *from, const char *to) noexcept, from, to, from, to)
RECORDED(renameat2, (flags & RENAME_EXCHANGE) != 0 ? "exchange" : "rename",
         (int from_folder, const char *from, int to_folder, const char *to, unsigned flags) noexcept, from,
         to, from_folder, from, to_folder, to, flags)
