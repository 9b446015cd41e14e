// The commands that look at the store of backups, or change it.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <iterator>
#include <set>
#include <unistd.h>

#include <glib.h>

#include "backups.h"
#include "commands.h"
#include "files.h"
#include "import.h"
#include "setting.h"
#include "snapshot.h"
#include "text.h"

namespace fs = std::filesystem;

[[noreturn]] static void refuse_missing(const CloudStore &store)
{
    throw PlatformError("there is no cloud store " + store.location() +
                        "; \"ime-backupctl backup\" makes it");
}

/// All backups of a store. What isn't one though it is named so is told on standard error, and a store that
/// isn't there, too.
static std::vector<BackupNumber> list_backups(const CloudStore &store)
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

/// The backups that a person named, each once.
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
    size_t damaged = 0;
    cli.document.set(inspect(*store, list_backups(*store), damaged));
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
    const auto store = open_store();
    const std::vector<BackupNumber> numbers =
        cli.arguments.empty() ? list_backups(*store)
                              : find_backups(*store, store->list().numbers, cli.arguments);
    size_t damaged = 0;
    const Table table = inspect(*store, numbers, damaged);
    cli.document.set(table);
    const size_t count = table.rows.size();
    cli.document.say(std::to_string(count) + (count == 1 ? " backup, " : " backups, ") +
                     std::to_string(damaged) + " damaged");
    cli.status = damaged == 0 ? EXIT_DONE : EXIT_FAILED;
}

/// One of the two that are compared.
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

/// The device, as a backup would have it.
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
        throw UsageError("no more than two backups can be compared");
    const auto store = open_store();
    const Side from = take_backup(*store, ids.empty() ? "" : ids[0]);
    const Side to = ids.size() == 2 ? take_backup(*store, ids[1]) : take_device();

    Table table{{{"name", "setting"}, {"from", from.name}, {"to", to.name}}};
    for (const SettingRow &row : SETTINGS) {
        const DeviceValue one = device_value(row, from.values[index_of(row)]);
        const DeviceValue other = device_value(row, to.values[index_of(row)]);
        if (!is_same_value(row, one, other))
            table.rows.push_back({row.member, cell_of(row, one), cell_of(row, other)});
    }
    cli.status = table.rows.empty() ? EXIT_DONE : EXIT_FAILED;
    if (table.rows.empty())
        cli.document.say(from.name + " and " + (to.name == "device" ? "the device" : to.name) +
                         " hold the same settings");
    cli.document.set("from", from.id);
    cli.document.set("to", to.id);
    cli.document.set("differences", table);
}

// What deletes.

/// Tells which of the backups that there were are kept.
static void tell_deleted(Document &document, const std::vector<BackupNumber> &before,
                         const std::vector<BackupNumber> &kept, const char *what_of_others)
{
    std::vector<BackupNumber> deleted;
    std::set_difference(before.begin(), before.end(), kept.begin(), kept.end(), std::back_inserter(deleted));
    document.set("deleted", deleted);
    document.set("kept", kept);
    for (const BackupNumber number : deleted)
        document.say(name_of(number) + "  " + what_of_others);
    if (deleted.empty())
        document.say("there is nothing to delete");
}

/// Deletes backups, and tells which were: also when not all that were chosen could be.
static void delete_and_tell(Document &document, CloudStore &store, const CloudStore::Choose &choose)
{
    std::vector<BackupNumber> before;
    try {
        store.remove([&](const std::vector<BackupNumber> &known) {
            const std::vector<BackupNumber> going = choose(known);
            before = known;
            return going;
        });
    } catch (const HostError &) {
        if (!before.empty())
            tell_deleted(document, before, store.list().numbers, "deleted");
        throw;
    }
    tell_deleted(document, before, store.list().numbers, "deleted");
}

void run_delete(Cli &cli)
{
    const auto store = open_store();
    find_backups(*store, store->list().numbers, cli.arguments); // a store that isn't there is none to lock
    delete_and_tell(cli.document, *store,
                    [&](const auto &known) { return find_backups(*store, known, cli.arguments); });
}

/// The newest backup that can be restored; 0 if there is none.
static BackupNumber find_newest_good(const CloudStore &store, std::vector<BackupNumber> numbers)
{
    std::reverse(numbers.begin(), numbers.end());
    for (const BackupNumber number : numbers)
        try {
            snapshot_in(store.read(number).records);
            return number;
        } catch (const UnreadableError &error) { // an older one must not take its place
            throw HostError("nothing is deleted, since of " + name_of(number) +
                            " it is not known whether it is good: " + error.what());
        } catch (const DamagedError &) {
            continue;
        } catch (const NoBackupError &) {
            continue;
        }
    return 0;
}

/// Whether a backup is younger than an age such as "30d". One that can't be read has no age.
static bool is_younger(const CloudStore &store, BackupNumber number, const std::string &age)
{
    const char unit = age.back();
    const std::int64_t seconds = unit == 'm' ? 60 : unit == 'h' ? 3600 : unit == 'd' ? 86'400 : 7 * 86'400;
    try {
        const auto date = parse_date(date_of(store.read(number).records));
        return date && g_get_real_time() / 1000 - *date < std::stoll(age) * seconds * 1000;
    } catch (const DamagedError &) {
        return false;
    } catch (const NoBackupError &) {
        return false;
    }
}

/// The backups that go.
static std::vector<BackupNumber> choose(const CloudStore &store, const std::vector<BackupNumber> &known,
                                        const Cli &cli)
{
    const bool has_age = cli.has("--keep-within");
    if (has_age)
        store.fetch(known);
    const BackupNumber newest_good = find_newest_good(store, known);
    const size_t keep = std::stoul(cli.value("--keep"));
    std::vector<BackupNumber> going;
    for (size_t i = 0; i + keep < known.size(); i++)
        if (known[i] != newest_good && !(has_age && is_younger(store, known[i], cli.value("--keep-within"))))
            going.push_back(known[i]);
    return going;
}

void run_prune(Cli &cli)
{
    const auto store = open_store();
    const std::vector<BackupNumber> known = list_backups(*store);
    if (!cli.has("--dry-run") && !known.empty()) {
        delete_and_tell(cli.document, *store,
                        [&](const std::vector<BackupNumber> &now) { return choose(*store, now, cli); });
        return;
    }
    std::vector<BackupNumber> kept = known;
    for (const BackupNumber number : choose(*store, known, cli))
        std::erase(kept, number);
    tell_deleted(cli.document, known, kept, "would be deleted");
}

// Files of the user's.

/// Writes a file of the user's, whole or not at all.
static void write_file(const fs::path &file, const std::string &content)
{
    g_autoptr(GError) failure = nullptr;
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(file.c_str(), content.data(), static_cast<gssize>(content.size()), flags,
                                 0600, &failure) == FALSE)
        throw HostError("can't write " + file.string() + ": " + (g_strrstr(failure->message, ": ") + 2));
}

/// Writes to where a name leads: a link may lead to a pipe, whose own name is none that can be opened.
static void write_out(const CloudStore &store, const fs::path &name, const std::string &content)
{
    std::error_code error;
    const fs::file_status status = fs::status(name, error);
    if (!fs::exists(status) && fs::is_symlink(fs::symlink_status(name, error)))
        throw HostError("can't write " + name.string() + ": it is a link to nothing");
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        FILE *stream = fopen(name.c_str(), "we");
        if (stream != nullptr)
            fwrite(content.data(), 1, content.size(), stream); // its failure shows when the stream is flushed
        if (stream == nullptr || fclose(stream) != 0)
            throw HostError("can't write " + name.string() + ": " + g_strerror(errno));
        return;
    }
    if (store.contains(name))
        throw HostError("can't write " + name.string() + ": that is in the cloud store");
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
        cli.quiet = true; // standard output is the backup's
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
    const auto store = open_store();
    if (!store->exists())
        refuse_missing(*store);
    Importable importable;
    try {
        const Descriptor file(name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file)
            throw HostError(g_strerror(errno));
        importable = make_importable(read_to_end(file, MAX_RECORD_FILE_SIZE));
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
