// The commands on the history of this device.

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

static std::string entry_name(const HistoryEntry &entry)
{
    return "entry " + std::to_string(entry.number) + " (" + describe(entry) + ")";
}

/// The result of an entry, and its reason.
static std::pair<std::string, std::string> result_of(const HistoryEntry &entry, bool is_under_way)
{
    if (!entry.fault.empty())
        return {"unreadable", "can't be read: " + entry.fault};
    if (is_under_way)
        return {"under way", "under way"};
    if (!entry.succeeded)
        return {"interrupted", "interrupted"};
    return {*entry.succeeded ? "done" : "failed", entry.reason};
}

void run_history(Cli &cli)
{
    const bool is_turn_held = is_turn_taken(); // by whoever writes the newest entry
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
        const bool is_under_way = is_turn_held && !entry.succeeded && &entry == &entries.back();
        const auto [result, reason] = result_of(entry, is_under_way);
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
        cli.document.say("nothing was done yet");
}

/// The entry that a person named, or the newest that can be undone; null when there is none.
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
            throw HostError(entry_name(*entry) + " is undone already; \"ime-backupctl undo " +
                            std::to_string(other.number) + "\" takes that back");
    return entry->changed.empty() ? nullptr : &*entry;
}

/// What an undo would change.
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
    const FileLock turn = wait_for_turn(is_dry);
    const std::vector<HistoryEntry> entries = read_history();
    const HistoryEntry *const entry = find_entry(entries, cli.argument());
    if (entry == nullptr) {
        cli.document.set_result(true);
        cli.document.say((cli.argument().empty() ? "" : "entry " + cli.argument() + " changed nothing: ") +
                         "there is nothing to undo");
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
    tell_success(cli.document, is_dry ? "" : open_device().durability_warning(),
                 (is_dry ? "would undo " : "undid ") + entry_name(*entry));
}
