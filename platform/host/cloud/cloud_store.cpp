#include "cloud_store.h"

#include <algorithm>
#include <cinttypes>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

#include <gio/gfiledescriptorbased.h>

#include "file_lock.h"
#include "record_file.h"
#include "state.h"

static constexpr char BACKUP_PREFIX[] = "backup-";
static constexpr char BACKUP_SUFFIX[] = ".json";
/// A backup while it is being written.
static constexpr char PARTIAL_NAME[] = ".partial";
/// Locked while a backup is added: several state roots may share a store.
static constexpr char LOCK_NAME[] = ".lock";

static std::string file_name(guint64 number)
{
    // Padded, so that a listing of the folder is in order.
    char digits[24];
    g_snprintf(digits, sizeof digits, "%06" PRIu64, number);
    return std::string(BACKUP_PREFIX) + digits + BACKUP_SUFFIX;
}

static std::optional<guint64> parse_number(const std::string &digits)
{
    guint64 number = 0;
    if (g_ascii_string_to_unsigned(digits.c_str(), 10, 1, G_MAXINT64, &number, nullptr) == FALSE)
        return std::nullopt;
    return number;
}

static std::optional<guint64> number_of(const std::string &name)
{
    if (!name.starts_with(BACKUP_PREFIX) || !name.ends_with(BACKUP_SUFFIX))
        return std::nullopt;
    const size_t prefix = sizeof BACKUP_PREFIX - 1;
    const size_t suffix = sizeof BACKUP_SUFFIX - 1;
    const auto number = parse_number(name.substr(prefix, name.size() - prefix - suffix));
    return number && file_name(*number) == name ? number : std::nullopt;
}

static File child(const File &folder, const std::string &name)
{
    return File(g_file_get_child(folder.get(), name.c_str()));
}

/// Hands back what succeeded; says what failed. `error` is looked at only once `result` is there.
template <class Result>
static Result checked(Result result, GError *&error, const char *action, const File &file)
{
    if (error == nullptr)
        return result;
    g_autofree gchar *name = g_file_get_parse_name(file.get());
    g_autoptr(GError) owned = error;
    throw StateError(std::string("can't ") + action + " " + name + ": " + owned->message);
}

CloudStore::CloudStore()
{
    const char *location = g_getenv("IME_BACKUP_CLOUD_STORE");
    if (location != nullptr && *location != '\0')
        folder.reset(g_file_new_for_commandline_arg(location));
    else
        folder.reset(g_file_new_for_path((state_root() / "cloud").c_str()));
}

std::vector<guint64> CloudStore::numbers() const
{
    std::vector<guint64> numbers;
    GError *error = nullptr;
    const std::unique_ptr<GFileEnumerator, ObjectUnref> entries(g_file_enumerate_children(
        folder.get(), G_FILE_ATTRIBUTE_STANDARD_NAME, G_FILE_QUERY_INFO_NONE, nullptr, &error));
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND) != FALSE) {
        g_error_free(error);
        return numbers;
    }
    checked(entries != nullptr, error, "list", folder);

    GFileInfo *info = nullptr;
    while (checked(g_file_enumerator_iterate(entries.get(), &info, nullptr, nullptr, &error), error, "list",
                   folder) != FALSE &&
           info != nullptr)
        if (const auto number = number_of(g_file_info_get_name(info)))
            numbers.push_back(*number);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

guint64 CloudStore::find(const std::string &text) const
{
    const std::vector<guint64> known = numbers();
    if (known.empty())
        throw HostError("there is no backup yet; \"ime-backupctl backup\" makes one");
    if (text.empty())
        return known.back();
    const auto number = parse_number(text);
    if (!number || !std::binary_search(known.begin(), known.end(), *number))
        throw HostError("there is no backup " + text + "; \"ime-backupctl list\" shows those there are");
    return *number;
}

std::string CloudStore::read(guint64 number) const
{
    return read_record_file(child(folder, file_name(number)).get());
}

/// Writes a new file, down to the disk where the folder is on one.
static void write_durably(const File &file, const std::string &content)
{
    GError *error = nullptr;
    const std::unique_ptr<GFileOutputStream, ObjectUnref> stream(
        g_file_create(file.get(), G_FILE_CREATE_PRIVATE, nullptr, &error));
    checked(stream != nullptr, error, "make", file);
    checked(g_output_stream_write_all(G_OUTPUT_STREAM(stream.get()), content.data(), content.size(), nullptr,
                                      nullptr, &error),
            error, "write", file);
    if (G_IS_FILE_DESCRIPTOR_BASED(stream.get()) &&
        fsync(g_file_descriptor_based_get_fd(G_FILE_DESCRIPTOR_BASED(stream.get()))) != 0)
        g_set_error_literal(&error, G_IO_ERROR, g_io_error_from_errno(errno), g_strerror(errno));
    checked(true, error, "write", file);
    checked(g_output_stream_close(G_OUTPUT_STREAM(stream.get()), nullptr, &error), error, "write", file);
}

/// Makes the names in a folder durable, if it is on a disk.
static void sync_folder(const File &folder)
{
    const char *path = g_file_peek_path(folder.get());
    if (path == nullptr)
        return;
    const int descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fsync(descriptor);
    close(descriptor);
}

guint64 CloudStore::add(const std::string &content)
{
    std::optional<FileLock> lock;
    if (const char *path = g_file_peek_path(folder.get()); path != nullptr) {
        make_private_folder(path);
        lock.emplace(std::filesystem::path(path) / LOCK_NAME).acquire();
    }

    // One that a killed process left behind.
    const File partial = child(folder, PARTIAL_NAME);
    g_file_delete(partial.get(), nullptr, nullptr);

    try {
        write_durably(partial, content);
        const std::vector<guint64> known = numbers();
        const guint64 number = known.empty() ? 1 : known.back() + 1;
        const File backup = child(folder, file_name(number));
        GError *error = nullptr;
        checked(g_file_move(partial.get(), backup.get(), G_FILE_COPY_NO_FALLBACK_FOR_MOVE, nullptr, nullptr,
                            nullptr, &error),
                error, "make", backup);
        sync_folder(folder);
        return number;
    } catch (const HostError &) {
        g_file_delete(partial.get(), nullptr, nullptr);
        throw;
    }
}
