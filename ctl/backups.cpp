#include "backups.h"

#include <glib.h>

#include "setting.h"
#include "snapshot.h"

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

static Cell cell_of(const SnapshotValues &values, const SettingRow &row)
{
    return cell_of(row, device_value(row, values[index_of(row)]));
}

static std::vector<Cell> describe(BackupNumber number, const Backup &backup)
{
    const SnapshotValues values = read_snapshot(snapshot_in(backup.records))->values;
    const std::string date = date_of(backup.records);
    const SettingRow &row = first_of(SettingForm::languages);
    Cell languages = cell_of(values, row);
    if (const auto *texts = std::get_if<std::vector<std::string>>(&values[index_of(row)]); texts != nullptr)
        languages.json = Json(split_languages(join_languages(*texts)).size()); // a script gets the count
    return {number,
            {utc_time(date), format_date(date)},
            {nullptr, format_age(date)},
            backup.content.size(),
            {true, ""},
            cell_of(values, first_of(SettingForm::identifier)),
            languages,
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
