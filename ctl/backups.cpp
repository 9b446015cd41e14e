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

/// Returns "" if the text is no date.
static std::string format_time(const std::string &date, GDateTime *(*make)(gint64), const char *format)
{
    const auto milliseconds = parse_date(date);
    g_autoptr(GDateTime) time = milliseconds ? make(*milliseconds / 1000) : nullptr;
    g_autofree gchar *text = time == nullptr ? nullptr : g_date_time_format(time, format);
    return text == nullptr ? "" : text;
}

std::string format_date(const std::string &date)
{
    const std::string text = format_time(date, g_date_time_new_from_unix_local, "%F %T %Z");
    return text.empty() ? date : text;
}

Json utc_time(const std::string &date)
{
    const std::string seconds = format_time(date, g_date_time_new_from_unix_utc, "%FT%T");
    if (seconds.empty())
        return nullptr;
    const std::string thousandths = std::to_string(1000 + *parse_date(date) % 1000);
    return seconds + "." + thousandths.substr(1) + "Z";
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

// Contents.

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
    } catch (const UnreadableError &error) {
        throw UnreadableError(name_of(number) + " " + error.what());
    } catch (const DamagedError &error) {
        throw DamagedError(name_of(number) + " is damaged: " + error.what());
    }
}

static Cell cell_of(const SnapshotValues &values, SettingForm form)
{
    const SettingRow &row = first_of(form);
    return cell_of(row, device_value(row, values[index_of(row)]));
}

Inspection inspect(const CloudStore &store, const std::vector<BackupNumber> &numbers)
{
    store.prefetch(numbers);
    Inspection inspection;
    inspection.table = {{{"id", "id"},
                         {"time", "time"},
                         {FOR_PEOPLE, "age"},
                         {"size", FOR_SCRIPTS},
                         {"usable", FOR_SCRIPTS},
                         {"default_keyboard", "keyboard"},
                         {"languages", "languages"},
                         {"reason", ""}},
                        {},
                        Remarks::warnings};
    for (const BackupNumber number : numbers) {
        std::string date;
        Cell keyboard = {nullptr, ""};
        Cell languages = keyboard;
        const auto known_size = store.size(number);
        Cell size = known_size ? *known_size : keyboard;
        Cell usable = {true, ""};
        Cell remark = "";
        try {
            const Backup backup = store.read(number);
            const SnapshotValues values = read_snapshot(snapshot_in(backup.records))->values;
            date = date_of(backup.records);
            size = backup.content.size();
            keyboard = cell_of(values, SettingForm::identifier);
            languages = cell_of(values, SettingForm::languages);
            if (const auto *texts = std::get_if<std::vector<std::string>>(&languages.json); texts != nullptr)
                languages.json = texts->size(); // scripts get the count
        } catch (const UnreadableError &error) {
            usable.json = nullptr;
            remark = error.what();
            inspection.unreadable++;
        } catch (const DamagedError &error) {
            usable.json = false;
            remark = {error.what(), std::string("damaged: ") + error.what()};
            inspection.damaged++;
        } catch (const NoBackupError &) {
            continue; // deleted meanwhile
        }
        const Cell time = {utc_time(date), format_date(date)};
        inspection.table.rows.push_back(
            {number, time, format_age(date), size, usable, keyboard, languages, remark});
    }
    return inspection;
}
