#include "cloud_store.h"

#include <algorithm>

#include <glib.h>

#include "contact.h"
#include "folder_store.h"
#include "paths.h"
#include "rclone_store.h"
#include "snapshot.h"

std::string snapshot_in(const CloudRecords &records)
{
    if (records.empty())
        throw DamagedError("it holds no record");
    for (const CloudRecord &record : records)
        if (const auto snapshot = read_snapshot(record.value.value_or("")); !snapshot || !snapshot->is_object)
            throw DamagedError("record \"" + record.key.value_or("") + "\" holds no snapshot");
    return *records.back().value;
}

static constexpr char BACKUP_PREFIX[] = "backup-";
static constexpr char BACKUP_SUFFIX[] = ".json";
static constexpr BackupNumber MAX_NUMBER = 999'999'999'999;

static constexpr std::string_view RCLONE_SCHEME = "rclone:";

/// The place that was chosen for the store, or nothing.
static const char *chosen_location()
{
    const char *location = g_getenv(STORE_VARIABLE);
    return location == nullptr || *location == '\0' ? nullptr : location;
}

/// What rclone calls the place, if the location names one of rclone's.
static std::optional<std::string> rclone_target(const std::string &location)
{
    if (!location.starts_with(RCLONE_SCHEME))
        return std::nullopt;
    const std::string target = location.substr(RCLONE_SCHEME.size());
    // Without a remote in front, rclone would take it for a folder.
    const bool has_remote =
        target.find(':') != std::string::npos && target[target.find_first_of(":,/")] != '/';
    return has_remote ? std::optional(target) : std::nullopt;
}

std::unique_ptr<CloudStore> open_store(std::optional<double> timeout_seconds)
{
    const char *location = chosen_location();
    if (location == nullptr)
        return std::make_unique<FolderStore>(state_root() / "cloud");
    if (const auto target = rclone_target(location); target)
        return std::make_unique<RcloneStore>(location, *target, timeout_seconds);
    g_autofree gchar *scheme = g_uri_parse_scheme(location);
    if (scheme != nullptr)
        throw PlatformError("the cloud store " + std::string(location) +
                            " can't be used: it must be a folder's path, or rclone:REMOTE:PATH");
    return std::make_unique<FolderStore>(absolute_path(location));
}

CloudStore::CloudStore(std::string location)
    : place(std::move(location)), chosen(chosen_location() != nullptr)
{
}

std::string CloudStore::file_name(BackupNumber number)
{
    // Padded, so that a listing of the folder is in order.
    std::string digits = std::to_string(number);
    digits.insert(0, digits.size() < 6 ? 6 - digits.size() : 0, '0');
    return BACKUP_PREFIX + digits + BACKUP_SUFFIX;
}

std::optional<BackupNumber> CloudStore::parse_number(const std::string &digits)
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

std::optional<BackupNumber> CloudStore::number_in(const std::string &name)
{
    const std::optional<std::string> digits = digits_in(name);
    const std::optional<BackupNumber> number = digits ? parse_number(*digits) : std::nullopt;
    return number && file_name(*number) == name ? number : std::nullopt;
}

std::optional<BackupNumber> CloudStore::number_taken_by(const std::string &name)
{
    const size_t end = name.find(BACKUP_SUFFIX);
    return end == std::string::npos ? std::nullopt
                                    : number_in(name.substr(0, end + sizeof BACKUP_SUFFIX - 1));
}

CloudStore::Listing CloudStore::parse_listing(const std::vector<std::string> &names)
{
    Listing listing{true, {}, {}};
    for (const std::string &name : names)
        if (const auto number = number_in(name); number)
            listing.numbers.push_back(*number);
        else if (digits_in(name))
            listing.left_out.push_back(name);
    std::sort(listing.numbers.begin(), listing.numbers.end());
    std::sort(listing.left_out.begin(), listing.left_out.end());
    return listing;
}

CloudStore::Listing CloudStore::list() const
{
    const auto names = list_names();
    return names ? parse_listing(*names) : Listing();
}

BackupNumber CloudStore::find(const std::string &text, const std::vector<BackupNumber> &known) const
{
    if (known.empty())
        throw NoBackupError("there is no backup yet in " + place);
    if (text.empty())
        return known.back();
    const auto number = parse_number(text);
    if (!number || !std::binary_search(known.begin(), known.end(), *number))
        throw NoBackupError("there is no backup " + text);
    return *number;
}

Backup CloudStore::read(BackupNumber number) const
{
    const std::string content = read_content(number);
    try {
        return {content, decode_record_file(content)};
    } catch (const HostError &error) {
        throw DamagedError(error.what());
    }
}

BackupNumber CloudStore::number_after(BackupNumber highest) const
{
    if (highest >= MAX_NUMBER)
        throw HostError("there is no number left for another backup in " + place);
    return highest + 1;
}
