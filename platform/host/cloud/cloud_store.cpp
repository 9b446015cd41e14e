#include "cloud_store.h"

#include <algorithm>

#include <glib.h>

#include "files.h"
#include "paths.h"
#include "record_file.h"

namespace fs = std::filesystem;

static constexpr char BACKUP_PREFIX[] = "backup-";
static constexpr char BACKUP_SUFFIX[] = ".json";
/// Locked while a backup is added: several state roots may share a store.
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

static fs::path store_folder()
{
    const char *location = g_getenv("IME_BACKUP_CLOUD_STORE");
    if (location == nullptr || *location == '\0')
        return state_root() / "cloud";
    g_autofree gchar *scheme = g_uri_parse_scheme(location);
    if (scheme != nullptr)
        throw PlatformError("the cloud store " + std::string(location) +
                            " can't be used: it must be a folder's path");
    return absolute_path(location);
}

CloudStore::CloudStore() : folder(store_folder()) {}

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

std::string CloudStore::read(BackupNumber number) const
{
    return read_file(file(number), MAX_RECORD_FILE_SIZE);
}

BackupNumber CloudStore::add(const std::string &content)
{
    make_private_folder(folder);
    FileLock lock(folder / LOCK_NAME);
    lock.acquire();
    const std::vector<BackupNumber> known = list().numbers;
    const BackupNumber number = known.empty() ? 1 : known.back() + 1;
    if (number > MAX_NUMBER)
        throw HostError("there is no number left for another backup: take " + file(known.back()).string() +
                        " away");
    create_file_durably(file(number), content);
    return number;
}
