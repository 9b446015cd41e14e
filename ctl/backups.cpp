#include "backups.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include <glib.h>

#include "setting.h"
#include "snapshot.h"
#include "text.h"

std::string name_of(BackupNumber number)
{
    return "backup " + std::to_string(number);
}

// Times.

std::optional<std::int64_t> parse_date(const std::string &date)
{
    gint64 milliseconds = 0;
    if (g_ascii_string_to_signed(date.c_str(), 10, 0, G_MAXINT64, &milliseconds, nullptr) == FALSE)
        return std::nullopt;
    return milliseconds;
}

static GDateTime *make_time(const std::string &date, GDateTime *(*make)(gint64))
{
    const auto milliseconds = parse_date(date);
    return milliseconds ? make(*milliseconds / 1000) : nullptr;
}

std::string format_date(const std::string &date)
{
    g_autoptr(GDateTime) local = make_time(date, g_date_time_new_from_unix_local);
    g_autofree gchar *text = local == nullptr ? nullptr : g_date_time_format(local, "%F %T %Z");
    return text == nullptr ? date : text;
}

/// The time as scripts have it, or nothing.
static Json utc_time(const std::string &date)
{
    g_autoptr(GDateTime) utc = make_time(date, g_date_time_new_from_unix_utc);
    g_autofree gchar *seconds = utc == nullptr ? nullptr : g_date_time_format(utc, "%FT%T");
    if (seconds == nullptr)
        return nullptr;
    g_autofree gchar *text = g_strdup_printf("%s.%03dZ", seconds, static_cast<int>(*parse_date(date) % 1000));
    return std::string(text);
}

static std::string format_age(const std::string &date)
{
    const auto milliseconds = parse_date(date);
    if (!milliseconds)
        return "";
    const std::int64_t seconds = g_get_real_time() / G_USEC_PER_SEC - *milliseconds / 1000;
    const struct {
        std::int64_t length;
        const char *name;
    } units[] = {{86'400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}};
    for (const auto &unit : units)
        if (seconds >= 2 * unit.length)
            return std::to_string(seconds / unit.length) + unit.name;
    return seconds < 0 ? "" : "now";
}

// What a backup holds.

std::string date_of(const CloudRecords &records)
{
    return records.empty() ? "" : records.front().date.value_or("");
}

Backup read_whole(const CloudStore &store, BackupNumber number)
{
    try {
        Backup backup = store.read(number);
        snapshot_in(backup.records);
        return backup;
    } catch (const DamagedError &error) {
        throw DamagedError(name_of(number) + " is damaged: " + error.what());
    }
}

/// A setting of a snapshot, in a list of backups: of languages, a script gets the count.
static Cell describe(const Snapshot &snapshot, SettingForm form)
{
    const SettingRow &row = first_of(form);
    const DeviceValue &value = snapshot[static_cast<size_t>(&row - SETTINGS)];
    const Cell cell = cell_of(row, value);
    if (form != SettingForm::languages || !value)
        return cell;
    return {split_languages(std::get<std::string>(*value)).size(), cell.text};
}

static std::vector<Cell> describe(BackupNumber number, const Backup &backup)
{
    const Snapshot snapshot = read_snapshot(snapshot_in(backup.records));
    const std::string date = date_of(backup.records);
    return {number,
            {utc_time(date), format_date(date)},
            {nullptr, format_age(date)},
            backup.content.size(),
            {true, ""},
            describe(snapshot, SettingForm::identifier),
            describe(snapshot, SettingForm::languages),
            ""};
}

static std::vector<Cell> describe_damaged(BackupNumber number, const std::string &reason,
                                          const std::optional<std::uintmax_t> &size)
{
    return {number,      {nullptr, ""}, {nullptr, ""}, {size ? Json(*size) : Json(), ""},
            {false, ""}, {nullptr, ""}, {nullptr, ""}, {reason, "damaged: " + reason}};
}

Inspection inspect(const CloudStore &store, const std::vector<BackupNumber> &numbers)
{
    store.fetch(numbers);
    Inspection inspection;
    inspection.table.remarks = Remarks::warnings;
    for (const BackupNumber number : numbers) {
        try {
            inspection.table.rows.push_back(describe(number, store.read(number)));
        } catch (const DamagedError &error) {
            inspection.table.rows.push_back(describe_damaged(number, error.what(), store.size(number)));
            inspection.damaged++;
        } catch (const NoBackupError &) {
            continue; // deleted meanwhile
        }
    }
    return inspection;
}

static bool is_good(const CloudStore &store, BackupNumber number)
{
    try {
        snapshot_in(store.read(number).records);
        return true;
    } catch (const UnreadableError &error) { // an older one must not take its place
        throw HostError("nothing is deleted, since of " + name_of(number) +
                        " it is not known whether it is good: " + error.what());
    } catch (const DamagedError &) {
        return false;
    } catch (const NoBackupError &) {
        return false;
    }
}

std::optional<BackupNumber> find_newest_good(const CloudStore &store,
                                             const std::vector<BackupNumber> &numbers)
{
    const auto newest = std::find_if(numbers.rbegin(), numbers.rend(),
                                     [&](BackupNumber number) { return is_good(store, number); });
    return newest == numbers.rend() ? std::nullopt : std::optional(*newest);
}

// Those that there are.

[[noreturn]] static void refuse_missing(const CloudStore &store)
{
    throw PlatformError("there is no cloud store " + store.location() +
                        "; \"ime-backupctl backup\" makes it");
}

void require_store(const CloudStore &store)
{
    if (!store.exists())
        refuse_missing(store);
}

std::vector<BackupNumber> list_backups(const CloudStore &store)
{
    const CloudStore::Listing listing = store.list();
    if (!listing.is_there) {
        if (store.is_chosen())
            refuse_missing(store);
        fprintf(stderr, "ime-backupctl: there is no backup yet: %s is made by the first one\n",
                escaped(store.location()).c_str());
        return {};
    }
    for (const std::string &name : listing.left_out)
        fprintf(stderr, "ime-backupctl: %s is left out: no backup has this number\n", escaped(name).c_str());
    return listing.numbers;
}

std::vector<BackupNumber> find_backups(const CloudStore &store, const std::vector<BackupNumber> &known,
                                       const std::vector<std::string> &ids)
{
    std::vector<BackupNumber> numbers;
    for (const std::string &id : ids)
        numbers.push_back(store.find(id, known));
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

void tell_deleted(Document &document, const std::vector<BackupNumber> &deleted,
                  const std::vector<BackupNumber> &kept, const char *what_of_them)
{
    document.set("deleted", Json(deleted));
    document.set("kept", Json(kept));
    for (const BackupNumber number : deleted)
        document.say(name_of(number) + "  " + what_of_them);
    if (deleted.empty())
        document.say("there is nothing to delete");
}

void delete_and_tell(Document &document, CloudStore &store, const CloudStore::Choose &choose)
{
    std::vector<BackupNumber> before;
    const auto tell = [&] {
        const std::vector<BackupNumber> kept = store.list().numbers;
        std::vector<BackupNumber> deleted;
        std::set_difference(before.begin(), before.end(), kept.begin(), kept.end(),
                            std::back_inserter(deleted));
        tell_deleted(document, deleted, kept, "deleted");
    };
    try {
        store.remove([&](const std::vector<BackupNumber> &known) {
            const std::vector<BackupNumber> going = choose(known);
            before = known;
            return going;
        });
    } catch (const HostError &) {
        if (!before.empty())
            tell();
        throw;
    }
    tell();
}
