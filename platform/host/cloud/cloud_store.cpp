#include "cloud_store.h"

#include <algorithm>
#include <unistd.h>

#include <glib.h>

#include "files.h"
#include "paths.h"
#include "record_file.h"

namespace fs = std::filesystem;

static constexpr char BACKUP_PREFIX[] = "backup-";
static constexpr char BACKUP_SUFFIX[] = ".json";
/// Locked while a backup is added or deleted: several state roots may share a store. It holds the highest
/// number given, lest one whose backup was deleted is given again.
static constexpr char LOCK_NAME[] = ".lock";
static constexpr BackupNumber MAX_NUMBER = 999'999'999'999;

static std::string file_name(BackupNumber number)
{
    // Padded, so that a listing of the folder is in order.
    std::string digits = std::to_string(number);
    digits.insert(0, digits.size() < 6 ? 6 - digits.size() : 0, '0');
    return BACKUP_PREFIX + digits + BACKUP_SUFFIX;
}

static std::optional<BackupNumber> parse_number(const std::string &digits)
{
    guint64 number = 0;
    if (g_ascii_string_to_unsigned(digits.c_str(), 10, 1, MAX_NUMBER, &number, nullptr) == FALSE)
        return std::nullopt;
    return number;
}

/// The digits in the name of a file that is named as a backup is.
static std::optional<std::string> digits_in(const std::string &name)
{
    const size_t prefix = sizeof BACKUP_PREFIX - 1;
    const size_t suffix = sizeof BACKUP_SUFFIX - 1;
    if (!name.starts_with(BACKUP_PREFIX) || !name.ends_with(BACKUP_SUFFIX) || name.size() <= prefix + suffix)
        return std::nullopt;
    const std::string digits = name.substr(prefix, name.size() - prefix - suffix);
    const bool all_digits =
        std::all_of(digits.begin(), digits.end(), [](char c) { return g_ascii_isdigit(c); });
    return all_digits ? std::optional(digits) : std::nullopt;
}

/// The place that was chosen for the store, or nothing.
static const char *chosen_location()
{
    const char *location = g_getenv("IME_BACKUP_CLOUD_STORE");
    return location == nullptr || *location == '\0' ? nullptr : location;
}

static fs::path store_folder()
{
    const char *location = chosen_location();
    if (location == nullptr)
        return state_root() / "cloud";
    g_autofree gchar *scheme = g_uri_parse_scheme(location);
    if (scheme != nullptr)
        throw PlatformError("the cloud store " + std::string(location) +
                            " can't be used: it must be a folder's path");
    return absolute_path(location);
}

CloudStore::CloudStore() : chosen(chosen_location() != nullptr), folder(store_folder()) {}

bool CloudStore::exists() const
{
    std::error_code error;
    const bool is_there = fs::exists(folder, error);
    if (error)
        throw PlatformError("can't look for the folder " + folder.string() + ": " + error.message());
    return is_there;
}

fs::path CloudStore::file(BackupNumber number) const
{
    return folder / file_name(number);
}

CloudStore::Listing CloudStore::list() const
{
    Listing listing;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        const std::optional<std::string> digits = digits_in(name);
        if (!digits)
            continue;
        const std::optional<BackupNumber> number = parse_number(*digits);
        if (number && file_name(*number) == name)
            listing.numbers.push_back(*number);
        else
            listing.left_out.push_back(name);
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw PlatformError("can't list the folder " + folder.string() + ": " + error.message());
    std::sort(listing.numbers.begin(), listing.numbers.end());
    std::sort(listing.left_out.begin(), listing.left_out.end());
    return listing;
}

BackupNumber CloudStore::find(const std::string &text) const
{
    const std::vector<BackupNumber> known = list().numbers;
    if (known.empty())
        throw NoBackupError("there is no backup yet in " + folder.string());
    if (text.empty())
        return known.back();
    const auto number = parse_number(text);
    if (!number || !std::binary_search(known.begin(), known.end(), *number))
        throw NoBackupError("there is no backup " + text);
    return *number;
}

Backup CloudStore::read(BackupNumber number) const
{
    try {
        const std::string content = read_file(file(number), MAX_RECORD_FILE_SIZE);
        return {content, decode_record_file(content)};
    } catch (const HostError &error) {
        std::error_code ignored;
        if (fs::symlink_status(file(number), ignored).type() == fs::file_type::not_found)
            throw NoBackupError("there is no backup " + std::to_string(number));
        throw DamagedError(error.what());
    }
}

/// The highest number that the lock's file remembers, or 0.
static BackupNumber remembered_number(const FileLock &lock)
{
    const std::string content = read_from(lock.opened(), 0);
    return parse_number(content.substr(0, content.find('\n'))).value_or(0);
}

static bool remember_number(const FileLock &lock, BackupNumber number)
{
    return write_at(lock.opened(), 0, std::to_string(number) + "\n");
}

void CloudStore::require_writable() const
{
    if (exists())
        make_private_folder(folder);
}

BackupNumber CloudStore::add(const std::string &content)
{
    make_private_folder(folder);
    FileLock lock(folder / LOCK_NAME);
    lock.acquire();
    const std::vector<BackupNumber> known = list().numbers;
    const BackupNumber number = std::max(remembered_number(lock), known.empty() ? 0 : known.back()) + 1;
    if (number > MAX_NUMBER)
        throw HostError("there is no number left for another backup in " + folder.string());
    create_file_durably(file(number), content);
    // As long as the backup is there its name tells the number, too. Here it takes up its space: a backup can
    // then be deleted when the disk is full.
    remember_number(lock, number);
    return number;
}

void CloudStore::remove(const Choose &choose)
{
    FileLock lock(folder / LOCK_NAME);
    lock.acquire();
    const std::vector<BackupNumber> known = list().numbers;
    const std::vector<BackupNumber> going = choose(known);
    // Where the newest stays its name tells the number, and nothing need be written on a disk that is full.
    const bool newest_goes =
        !going.empty() && std::find(going.begin(), going.end(), known.back()) != going.end();
    if (newest_goes && (!remember_number(lock, std::max(remembered_number(lock), known.back())) ||
                        fdatasync(lock.opened().get()) != 0))
        throw HostError("can't note in " + (folder / LOCK_NAME).string() + " which numbers were given");
    for (const BackupNumber number : going)
        remove_file_durably(file(number));
}

std::optional<std::uintmax_t> CloudStore::size(BackupNumber number) const
{
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file(number), error);
    return error ? std::nullopt : std::optional(size);
}
