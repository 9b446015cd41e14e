// The commands on the cloud store.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <set>

#include <glib.h>

#include "backups.h"
#include "commands.h"
#include "files.h"
#include "import.h"
#include "retention.h"
#include "setting.h"
#include "snapshot.h"
#include "text.h"

namespace fs = std::filesystem;

[[noreturn]] static void refuse_missing(const CloudStore &store)
{
    throw PlatformError("the cloud store " + store.location() +
                        " does not exist; \"ime-backupctl backup\" makes it");
}

/// Returns all backups of a store. Reports on standard error a missing store, and files whose names look like
/// a backup's but have no valid number.
static std::vector<BackupNumber> list_backups(const CloudStore &store)
{
    const CloudStore::Listing listing = store.list();
    if (!listing.exists) {
        if (store.is_chosen())
            refuse_missing(store);
        fprintf(stderr, "ime-backupctl: no backups yet: the first one makes %s\n",
                escaped(store.location()).c_str());
        return {};
    }
    for (const std::string &name : listing.misnamed)
        fprintf(stderr, "ime-backupctl: %s is ignored: its number is not valid\n", escaped(name).c_str());
    return listing.numbers;
}

/// Returns the backups with the given IDs, in order, each once.
static std::vector<BackupNumber> find_backups(const CloudStore &store, const std::vector<BackupNumber> &known,
                                              const std::vector<std::string> &ids)
{
    std::set<BackupNumber> numbers;
    for (const std::string &id : ids)
        numbers.insert(store.find(id, known));
    return {numbers.begin(), numbers.end()};
}

void run_list(Cli &cli)
{
    const auto store = open_store();
    cli.document.set(inspect(*store, list_backups(*store)).table);
}

void run_show(Cli &cli)
{
    const auto store = open_store();
    const std::string text = snapshot_in(read_whole(*store, store->find(cli.argument())).records);
    const SnapshotValues values = read_snapshot(text)->values;
    Table table{{{FOR_PEOPLE, ""}, {FOR_PEOPLE, ""}}};
    for (const SettingRow &row : SETTINGS)
        table.rows.push_back({row.member, cell_of(row, device_value(row, values[index_of(row)]))});
    cli.document.show(table);
    cli.document.set_json(text);
}

void run_verify(Cli &cli)
{
    cli.failure_status = EXIT_NO_PLATFORM; // 1 means that one is damaged
    const auto store = open_store();
    const std::vector<BackupNumber> numbers =
        cli.arguments.empty() ? list_backups(*store)
                              : find_backups(*store, store->list().numbers, cli.arguments);
    const Inspection inspection = inspect(*store, numbers);
    cli.document.set(inspection.table);
    const size_t count = inspection.table.rows.size();
    cli.document.say(std::to_string(count) + (count == 1 ? " backup, " : " backups, ") +
                     std::to_string(inspection.damaged) + " damaged, " +
                     std::to_string(inspection.unreadable) + " unreadable");
    if (inspection.damaged > 0)
        cli.status = EXIT_FAILED;
    else if (inspection.unreadable > 0)
        cli.status = EXIT_NO_PLATFORM;
}

/// Returns the settings that differ: name and both values.
static std::vector<std::vector<Cell>> find_differences(const SnapshotValues &from, const SnapshotValues &to)
{
    std::vector<std::vector<Cell>> differences;
    for (const SettingRow &row : SETTINGS) {
        const DeviceValue one = device_value(row, from[index_of(row)]);
        const DeviceValue other = device_value(row, to[index_of(row)]);
        if (!is_same_value(row, one, other))
            differences.push_back({row.member, cell_of(row, one), cell_of(row, other)});
    }
    return differences;
}

/// One side of a comparison: a backup, or the device.
struct Side {
    Json id;
    std::string name;
    SnapshotValues values;
};

static Side take_backup(const CloudStore &store, const std::string &id)
{
    const BackupNumber number = store.find(id);
    return {number, name_of(number), read_snapshot(snapshot_in(read_whole(store, number).records))->values};
}

/// Returns the settings that a backup of the device would hold.
static Side take_device()
{
    const BackupPlan plan = plan_backup_here();
    if (!plan.obstacles.empty())
        throw_obstacle(plan.obstacles.front());
    return {"device", "device", plan.snapshot};
}

void run_diff(Cli &cli)
{
    const std::vector<std::string> &ids = cli.arguments;
    cli.failure_status = EXIT_NO_PLATFORM; // 1 means that they differ
    if (ids.size() > 2)
        throw UsageError("diff takes at most two backups");
    const auto store = open_store();
    const Side from = take_backup(*store, ids.empty() ? "" : ids[0]);
    const Side to = ids.size() == 2 ? take_backup(*store, ids[1]) : take_device();

    Table table{{{"name", "setting"}, {"from", from.name}, {"to", to.name}}};
    table.rows = find_differences(from.values, to.values);
    cli.status = table.rows.empty() ? EXIT_DONE : EXIT_FAILED;
    if (table.rows.empty())
        cli.document.say(from.name + " and " + (to.name == "device" ? "the device" : to.name) +
                         " hold the same settings");
    cli.document.set("from", from.id);
    cli.document.set("to", to.id);
    cli.document.set("differences", table);
}

void run_log(Cli &cli)
{
    for (const std::string &name : cli.arguments)
        find_setting(name);
    const auto is_left_out = [&](const std::vector<Cell> &change) {
        return !cli.arguments.empty() &&
               std::ranges::find(cli.arguments, change[0].text) == cli.arguments.end();
    };
    const auto store = open_store();
    const std::vector<BackupNumber> numbers = list_backups(*store);
    store->prefetch(numbers);
    Table log{{{"id", ""}, {"time", ""}, {"changes", ""}, {"reason", ""}}};
    Table lines{{{"", "id"}, {"", "time"}, {"", "setting"}, {"", "from"}, {"", "to"}, {"", ""}},
                {},
                Remarks::warnings};
    std::optional<SnapshotValues> before;
    for (const BackupNumber number : numbers) {
        auto changes = std::make_shared<Table>(Table{{{"name", ""}, {"from", ""}, {"to", ""}}});
        const std::string unchanged = before ? "no change" : "the first";
        std::string date;
        std::string reason;
        try {
            const CloudRecords records = store->read(number).records;
            const SnapshotValues values = read_snapshot(snapshot_in(records))->values;
            date = date_of(records);
            if (before)
                changes->rows = find_differences(*before, values);
            std::erase_if(changes->rows, is_left_out);
            before = values;
        } catch (const UnreadableError &error) {
            reason = error.what();
        } catch (const DamagedError &error) {
            reason = std::string("damaged: ") + error.what();
        } catch (const NoBackupError &) {
            continue; // deleted meanwhile
        }
        if (!cli.arguments.empty() && changes->rows.empty() && reason.empty())
            continue;
        const std::string time = format_date(date);
        log.rows.push_back({number, {utc_time(date), time}, {changes, ""}, reason});
        if (changes->rows.empty())
            lines.rows.push_back({number, time, "", "", "", reason.empty() ? unchanged : reason});
        for (const std::vector<Cell> &change : changes->rows)
            lines.rows.push_back({number, time, change[0], change[1], change[2], ""});
    }
    cli.document.set(log);
    cli.document.show(lines);
}

// Deletion.

/// Reports the chosen backups that are no longer there as deleted, and the others as kept.
///
/// @param verdict on each deleted one, such as "deleted"
static void report_deleted(Document &document, const std::vector<BackupNumber> &chosen,
                           const std::vector<BackupNumber> &kept, const char *verdict)
{
    std::vector<BackupNumber> deleted;
    std::set_difference(chosen.begin(), chosen.end(), kept.begin(), kept.end(), std::back_inserter(deleted));
    document.set("deleted", deleted);
    document.set("kept", kept);
    for (const BackupNumber number : deleted)
        document.say(name_of(number) + "  " + verdict);
    if (chosen.empty())
        document.say("nothing to delete");
}

/// Lists the store after a deletion, and reports which backups are deleted.
///
/// @throws HostError if a deleted backup is still listed
static void check_deletion(Document &document, const CloudStore &store,
                           const std::vector<BackupNumber> &chosen)
{
    document.set("deleted", std::vector<BackupNumber>());
    document.set("kept", std::vector<BackupNumber>());
    const CloudStore::Listing listing = store.list();
    if (!listing.exists && !chosen.empty())
        throw HostError("can't tell which backups were deleted: " + store.location() + " has disappeared");
    report_deleted(document, chosen, listing.numbers, "deleted");
    std::vector<std::string> left;
    for (const BackupNumber number : chosen)
        if (std::ranges::binary_search(listing.numbers, number))
            left.push_back(name_of(number));
    if (!left.empty())
        throw HostError("deleted, but still listed in " + store.location() + ": " + join(left, ", "));
}

/// Deletes the chosen backups, and reports which are deleted, even if the deletion fails halfway.
static void delete_and_report(Document &document, CloudStore &store, const CloudStore::Choose &choose)
{
    std::vector<BackupNumber> chosen;
    try {
        store.remove([&](const std::vector<BackupNumber> &known) { return chosen = choose(known); });
    } catch (const HostError &) {
        try {
            if (!chosen.empty())
                check_deletion(document, store, chosen);
        } catch (const HostError &) { // the failure of the deletion is reported
        }
        throw;
    }
    check_deletion(document, store, chosen);
}

void run_delete(Cli &cli)
{
    const auto store = open_store(highest_backup);
    // Fails for an unknown backup before the deletion's lock creates a missing store.
    find_backups(*store, store->list().numbers, cli.arguments);
    delete_and_report(cli.document, *store,
                      [&](const auto &known) { return find_backups(*store, known, cli.arguments); });
}

static Retention read_retention(const Cli &cli)
{
    const auto count = [&](const char *option) {
        return cli.has(option) ? std::stoul(cli.value(option)) : 0;
    };
    Retention retention{
        count("--keep"), count("--keep-daily"), count("--keep-weekly"), count("--keep-monthly"), {}};
    const std::vector<std::string> options = {"--keep", "--keep-within", "--keep-daily", "--keep-weekly",
                                              "--keep-monthly"};
    if (std::ranges::none_of(options, [&](const std::string &option) { return cli.has(option); }))
        throw UsageError("no rule is given: use one of " + join(options, ", "));
    if (cli.has("--keep-within")) {
        const std::string age = cli.value("--keep-within");
        const char unit = age.back();
        const std::int64_t seconds = unit == 'm'   ? 60
                                     : unit == 'h' ? 3600
                                     : unit == 'd' ? 86'400
                                                   : 7 * 86'400;
        retention.within = std::stoll(age) * seconds * 1000;
    }
    return retention;
}

/// The backups to delete, and the table of those to keep.
struct Selection {
    std::vector<BackupNumber> deleted;
    Table kept{{{"id", "kept"}, {"time", ""}, {"kept_by", "by"}}};
    std::vector<std::string> unreadable; ///< with the reasons
};

/// Reads each backup, and applies the rules.
static Selection select(const CloudStore &store, const std::vector<BackupNumber> &known,
                        const Retention &retention)
{
    Selection selection;
    std::vector<BackupNumber> numbers;
    std::vector<std::string> dates;
    std::vector<RatedBackup> backups;
    store.prefetch(known);
    for (const BackupNumber number : known) {
        std::string date;
        RatedBackup backup{RatedBackup::State::damaged, {}};
        try {
            const CloudRecords records = store.read(number).records;
            date = date_of(records);
            snapshot_in(records);
            backup.state = RatedBackup::State::good;
        } catch (const UnreadableError &error) {
            backup.state = RatedBackup::State::unreadable;
            selection.unreadable.push_back(name_of(number) + " " + error.what());
        } catch (const DamagedError &) {  // may be deleted
        } catch (const NoBackupError &) { // deleted meanwhile
            continue;
        }
        backup.date = parse_date(date);
        numbers.push_back(number);
        dates.push_back(date);
        backups.push_back(backup);
    }
    const auto kept_by = apply_retention(retention, backups, g_get_real_time() / 1000);
    for (size_t i = 0; i < numbers.size(); i++)
        if (kept_by[i].empty())
            selection.deleted.push_back(numbers[i]);
        else
            selection.kept.rows.push_back({numbers[i],
                                           {utc_time(dates[i]), format_date(dates[i])},
                                           {kept_by[i], join(kept_by[i], ", ")}});
    return selection;
}

void run_prune(Cli &cli)
{
    const Retention retention = read_retention(cli);
    const auto store = open_store(highest_backup);
    const std::vector<BackupNumber> known = list_backups(*store);
    Selection selection;
    const auto select_now = [&](const auto &now) {
        selection = select(*store, now, retention);
        cli.document.set("rules", selection.kept);
        return selection.deleted;
    };
    if (cli.has("--dry-run") || known.empty()) {
        const std::vector<BackupNumber> chosen = select_now(known);
        std::vector<BackupNumber> kept;
        std::ranges::set_difference(known, chosen, std::back_inserter(kept));
        report_deleted(cli.document, chosen, kept, "would be deleted");
    } else {
        delete_and_report(cli.document, *store, select_now);
    }
    if (!selection.unreadable.empty())
        throw HostError(join(selection.unreadable, "; ") + "; unreadable backups are kept");
}

// Export and import.

/// Writes a file atomically.
static void write_file(const fs::path &file, const std::string &content)
{
    g_autoptr(GError) failure = nullptr;
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(file.c_str(), content.data(), static_cast<gssize>(content.size()), flags,
                                 0600, &failure) == FALSE)
        throw HostError("can't write " + file.string() + ": " + (g_strrstr(failure->message, ": ") + 2));
}

/// Writes to a file or, if the name leads there, to a pipe or device. A symbolic link is followed: it may
/// lead to an unnamed pipe.
static void write_out(const CloudStore &store, const fs::path &name, const std::string &content)
{
    std::error_code error;
    const fs::file_status status = fs::status(name, error);
    if (!fs::exists(status) && fs::is_symlink(fs::symlink_status(name, error)))
        throw HostError("can't write " + name.string() + ": it is a dangling link");
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        FILE *stream = fopen(name.c_str(), "we");
        const bool is_written = stream != nullptr && fwrite(content.data(), content.size(), 1, stream) == 1;
        if (stream == nullptr || fclose(stream) != 0 || !is_written)
            throw HostError("can't write " + name.string() + ": " + g_strerror(errno));
        return;
    }
    if (store.contains(name))
        throw HostError("can't write " + name.string() + ": it is in the cloud store");
    const fs::path file = fs::weakly_canonical(name, error);
    write_file(error ? name : file, content);
}

void run_export(Cli &cli)
{
    const std::string &name = cli.arguments[1];
    cli.document.set_result(false);
    cli.document.set("backup", nullptr);
    const auto store = open_store();
    const BackupNumber number = store->find(cli.argument());
    const std::string content = read_whole(*store, number).content;
    if (name == "-") {
        fwrite(content.data(), 1, content.size(), stdout);
        cli.quiet = true; // standard output holds the backup
        return;
    }
    write_out(*store, name, content);
    cli.document.set_result(true);
    cli.document.set("backup", number);
    cli.document.say(name_of(number) + "  written to " + name);
}

void run_import(Cli &cli)
{
    const std::string name = cli.argument();
    cli.document.set_result(false);
    cli.document.set("backup", nullptr);
    cli.document.set("stored", false);
    const auto store = open_store(highest_backup);
    if (!store->exists())
        refuse_missing(*store);
    const std::string content = read_input(name, MAX_RECORD_FILE_SIZE, "imported");
    Importable importable;
    try {
        importable = make_importable(content);
    } catch (const DamagedError &error) {
        throw DamagedError(name + " can't be imported: " + error.what());
    } catch (const HostError &error) {
        throw HostError(name + " can't be imported: " + error.what());
    }
    for (const std::string &remark : importable.remarks)
        fprintf(stderr, "ime-backupctl: %s\n", escaped(remark).c_str());
    const BackupNumber number = store->add(importable.content);
    cli.document.set_result(true);
    cli.document.set("backup", number);
    cli.document.set("stored", true);
    cli.document.say(name_of(number) + "  imported");
}
