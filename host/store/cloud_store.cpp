#include "cloud_store.h"

#include <algorithm>

#include <glib.h>

#include "paths.h"
#include "shared_names.h"
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

static constexpr std::string_view PREFIX = "backup-";
static constexpr std::string_view RCLONE_SCHEME = "rclone:";
static constexpr BackupNumber MAX_NUMBER = 999'999'999'999;

/// The location in $IME_BACKUP_CLOUD_STORE, or "".
static std::string chosen_location()
{
    const char *location = g_getenv(STORE_VARIABLE);
    return location == nullptr ? "" : location;
}

std::string CloudStore::without_secrets(const std::string &text)
{
    static constexpr struct {
        const char *pattern;
        const char *shown;
    } SECRETS[] = {
        // A remote's parameters, except those that identify it. In error messages, a quote may follow a
        // backslash.
        {R"((,(?!(?:type|provider|vendor|url|host|port|user|region|endpoint)=)[^=,:/"']*=))"
         R"((?:\\?"(?:[^"]|"")*(?:"|\z)|'(?:[^']|'')*(?:'|\z)|[^,:]*))",
         R"(\1***)"},
        {R"(://[^"\s]*@)", "://***@"},
    };
    std::string masked = text;
    for (const auto &[pattern, shown] : SECRETS) {
        g_autoptr(GRegex) secret = g_regex_new(pattern, G_REGEX_RAW, {}, nullptr);
        g_autofree gchar *replaced = g_regex_replace(secret, masked.c_str(), -1, 0, shown, {}, nullptr);
        masked = replaced;
    }
    return masked;
}

bool CloudStore::is_chosen()
{
    return !chosen_location().empty();
}

static std::unique_ptr<CloudStore> make_store()
{
    const std::string location = chosen_location();
    if (location.empty())
        return make_folder_store(state_root() / "cloud");
    if (location.starts_with(RCLONE_SCHEME)) {
        const std::string target = location.substr(RCLONE_SCHEME.size());
        // rclone would treat a target without a remote as a local folder.
        if (target.find(':') != std::string::npos && target[target.find_first_of(":,/")] != '/')
            return make_rclone_store(location, target);
    }
    g_autofree gchar *scheme = g_uri_parse_scheme(location.c_str());
    if (scheme != nullptr)
        throw PlatformError("the cloud store " + CloudStore::without_secrets(location) +
                            " can't be used: it must be a folder's path, or rclone:REMOTE:PATH");
    return make_folder_store(absolute_path(location));
}

std::unique_ptr<CloudStore> open_store(HighestKnown highest_known)
{
    std::unique_ptr<CloudStore> store = make_store();
    store->get_highest_known = highest_known;
    return store;
}

std::string CloudStore::file_name(BackupNumber number)
{
    // Padded, so that file names sort by number.
    g_autofree gchar *name = g_strdup_printf("backup-%06" G_GUINT64_FORMAT ".json", number);
    return name;
}

std::optional<BackupNumber> CloudStore::parse_number(const std::string &digits)
{
    guint64 number = 0;
    if (g_ascii_string_to_unsigned(digits.c_str(), 10, 1, MAX_NUMBER, &number, nullptr) == FALSE)
        return std::nullopt;
    return number;
}

std::optional<BackupNumber> CloudStore::number_taken_by(const std::string &name)
{
    if (!name.starts_with(PREFIX))
        return std::nullopt;
    const auto number = parse_number(name.substr(PREFIX.size(), name.find('.') - PREFIX.size()));
    return number && name.starts_with(file_name(*number)) ? number : std::nullopt;
}

CloudStore::Listing CloudStore::parse_listing(const std::vector<std::string> &names)
{
    Listing listing{true, {}, {}};
    for (const std::string &name : names)
        if (const auto number = number_taken_by(name); number && file_name(*number) == name)
            listing.numbers.push_back(*number);
        else if (g_regex_match_simple(R"(^backup-[0-9]+\.json\z)", name.c_str(), G_REGEX_RAW, {}) != FALSE)
            listing.misnamed.push_back(name);
    std::sort(listing.numbers.begin(), listing.numbers.end());
    std::sort(listing.misnamed.begin(), listing.misnamed.end());
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
    if (text.empty() || text == LATEST)
        return known.back();
    const auto number = parse_number(text);
    if (!number || !std::binary_search(known.begin(), known.end(), *number))
        throw NoBackupError("there is no backup " + text);
    return *number;
}

Backup CloudStore::read(BackupNumber number) const
{
    std::string content;
    try {
        content = read_content(number);
    } catch (const UnreadableError &error) {
        throw UnreadableError(std::string("can't be read: ") + error.what());
    }
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
