// The commands on the device's history.

#include <algorithm>

#include "backups.h"
#include "commands.h"
#include "history.h"
#include "setting.h"

std::string describe(const HistoryEntry &entry)
{
    if (entry.undoes != 0)
        return "undo of entry " + std::to_string(entry.undoes);
    if (entry.backup == 0)
        return entry.operation;
    return entry.operation == "restore" ? "restore of " + name_of(entry.backup) : name_of(entry.backup);
}

static std::string name_of(const HistoryEntry &entry)
{
    return "entry " + std::to_string(entry.number) + " (" + describe(entry) + ")";
}

/// Returns the result of an entry, and its reason.
static std::pair<std::string, std::string> result_of(const HistoryEntry &entry, bool is_running)
{
    if (!entry.fault.empty())
        return {"unreadable", "can't be read: " + entry.fault};
    if (is_running)
        return {"running", "running"};
    if (!entry.succeeded)
        return {"interrupted", "interrupted"};
    return {*entry.succeeded ? "done" : "failed", entry.reason};
}

void run_history(Cli &cli)
{
    const bool is_locked = is_exchange_running(); // the newest entry is then being written
    const std::vector<HistoryEntry> entries = read_history();
    Table table{{{"entry", "entry"},
                 {"time", "time"},
                 {"what", FOR_SCRIPTS},
                 {FOR_PEOPLE, "what"},
                 {"backup", FOR_SCRIPTS},
                 {"succeeded", FOR_SCRIPTS},
                 {FOR_PEOPLE, "result"},
                 {"reason", FOR_SCRIPTS},
                 {"changed", FOR_SCRIPTS},
                 {"undone", FOR_SCRIPTS},
                 {FOR_PEOPLE, "changed"}},
                {},
                Remarks::plain};
    for (const HistoryEntry &entry : entries) {
        const bool is_running = is_locked && !entry.succeeded && &entry == &entries.back();
        const auto [result, reason] = result_of(entry, is_running);
        std::vector<std::string> remarks = {join(entry.changed, ", "),
                                            entry.succeeded ? reason : entry.fault};
        std::erase(remarks, "");
        const std::string date = std::to_string(entry.time);
        table.rows.push_back({entry.number,
                              {utc_time(date), format_date(date)},
                              entry.operation,
                              describe(entry),
                              {entry.backup == 0 ? Json() : Json(entry.backup), ""},
                              {entry.succeeded == true, ""},
                              entry.is_undone ? "undone" : result,
                              reason,
                              {entry.changed, ""},
                              {entry.is_undone, ""},
                              join(remarks, "; ")});
        if (!entry.fault.empty())
            cli.status = EXIT_FAILED;
    }
    cli.document.set(table);
    if (entries.empty())
        cli.document.say("the history is empty");
}

/// Returns the named entry, or without a name the newest one that can be undone. Returns null if there is
/// nothing to undo.
static const HistoryEntry *find_entry(const std::vector<HistoryEntry> &entries, const std::string &name)
{
    if (name.empty())
        return find_undoable(entries);
    const auto entry = std::ranges::find(
        entries, name, [](const HistoryEntry &known) { return std::to_string(known.number); });
    if (entry == entries.end())
        throw NoEntryError("there is no entry " + name + " in the history");
    if (!entry->fault.empty())
        throw HostError("entry " + name + " of the history can't be read: " + entry->fault);
    for (const HistoryEntry &other : entries)
        if (entry->is_undone && other.undoes == entry->number && other.succeeded == true && !other.is_undone)
            throw HostError(name_of(*entry) + " is undone already; \"ime-backupctl undo " +
                            std::to_string(other.number) + "\" takes the undo back");
    return entry->changed.empty() ? nullptr : &*entry;
}

/// Shows what an undo would change.
static void show_changes(Cli &cli, const NewValues &values)
{
    Table changes = CHANGES;
    for (const auto &[row, value] : values) {
        open_device().require_writable(row);
        const DeviceValue now = open_device().read_one(row);
        if (now != value)
            changes.rows.push_back({row.member, cell_of(row, now), cell_of(row, value)});
    }
    cli.document.set("settings", changes);
}

void run_undo(Cli &cli)
{
    const bool is_dry = cli.has("--dry-run");
    cli.document.set_result(false);
    cli.document.set("entry", nullptr);
    cli.document.set("dry_run", is_dry);
    cli.document.set("settings", CHANGES);
    const FileLock lock = lock_exchanges(is_dry);
    const std::vector<HistoryEntry> entries = read_history();
    const HistoryEntry *const entry = find_entry(entries, cli.argument());
    if (entry == nullptr) {
        cli.document.set_result(true);
        cli.document.say((cli.argument().empty() ? "" : "entry " + cli.argument() + " changed nothing: ") +
                         "nothing to undo");
        return;
    }
    cli.document.set("entry", entry->number);
    NewValues values;
    for (const std::string &member : entry->changed)
        values.emplace_back(find_setting(member), entry->before.at(member));
    if (is_dry) {
        require_writable_history();
        show_changes(cli, values);
    } else {
        change_device(cli, {"undo", entry->number}, values);
    }
    const std::string article = entry->operation.starts_with("settings") ? "" : "the ";
    report_success(cli.document, is_dry ? "" : open_device().durability_warning(),
                   (is_dry ? "would undo " : "undid ") + article + describe(*entry) + " (entry " +
                       std::to_string(entry->number) + ")");
}
