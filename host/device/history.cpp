#include "history.h"

#include <algorithm>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "paths.h"
#include "value_json.h"

namespace fs = std::filesystem;
using Json = nlohmann::json;

static constexpr char JOURNAL[] = "history.jsonl";
static constexpr size_t MAX_SIZE = size_t{256} << 20;
/// The number of newest entries that are kept, and also of newest entries that can be undone.
static constexpr size_t MAX_KEPT = 200;
/// After this number of entries, the journal is rewritten without old entries.
static constexpr EntryNumber REWRITE_INTERVAL = 100;
/// Bytes reserved before an entry's first change, so that a full disk does not prevent the end of the entry.
static constexpr off_t RESERVED_SIZE = 8192;

static fs::path journal_file()
{
    return state_root() / JOURNAL;
}

NamedValues name_values(const DeviceState &device)
{
    NamedValues values;
    for (const SettingRow &row : ALL_SETTINGS)
        values.emplace(row.member, device[index_of(row)]);
    return values;
}

// Each line is a JSON object with members of one entry. Later lines of an entry add or replace members. The
// last member of a line is a checksum of the text before it.

static constexpr char SUM[] = R"(,"sum":")";
static constexpr size_t SUM_LENGTH = 16;
static constexpr size_t TAIL_LENGTH = sizeof SUM - 1 + SUM_LENGTH + sizeof "\"}" - 1;

static std::string checksum_of(std::string_view text)
{
    g_autofree gchar *sum = g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar *>(text.data()), text.size());
    return {sum, SUM_LENGTH};
}

static std::string encode_line(const Json &object)
{
    std::string text = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    text.pop_back();
    return text + SUM + checksum_of(text) + "\"}\n";
}

/// Returns the object in a line, which has no newline at its end; null if the checksum does not match.
static Json decode_line(std::string_view line)
{
    if (line.size() < TAIL_LENGTH)
        return nullptr;
    const std::string text(line.substr(0, line.size() - TAIL_LENGTH));
    return text + SUM + checksum_of(text) + "\"}" == line ? Json::parse(text + "}", nullptr, false) : nullptr;
}

namespace
{

/// An entry with its lines in the journal.
struct JournalEntry {
    HistoryEntry entry;
    Json members = Json::object();
    std::string lines;
};

} // namespace

static NamedValues read_values(const Json &members, const char *name)
{
    auto values = members.value(name, NamedValues());
    for (const auto &[member, value] : values)
        if (std::ranges::find(ALL_SETTINGS, member, &SettingRow::member) == std::end(ALL_SETTINGS))
            throw HostError("it names a setting that this version does not know: " + member);
    return values;
}

static void decode(JournalEntry &journal_entry)
{
    const Json &members = journal_entry.members;
    HistoryEntry &entry = journal_entry.entry;
    entry.fault = members.value("fault", entry.fault);
    entry.time = members.value("time", entry.time);
    entry.operation = members.value("what", "");
    if (!entry.fault.empty())
        return;
    members.at("time");
    entry.backup = members.value("backup", entry.backup);
    entry.store = members.value("store", "");
    entry.undoes = members.value("undoes", entry.undoes);
    entry.before = read_values(members, "before");
    entry.planned = read_values(members, "planned");
    if (members.contains("succeeded"))
        entry.succeeded = members["succeeded"].get<bool>();
    entry.reason = members.value("reason", "");
    for (const SettingRow &row : ALL_SETTINGS)
        if (entry.planned.contains(row.member))
            entry.changed.emplace_back(row.member);
    entry.changed = members.value("changed", entry.changed);
    for (const std::string &member : entry.changed)
        if (!entry.before.contains(member))
            throw HostError("it lacks the old value of " + member);
}

/// Returns the entries in a journal. Skips lines that a power cut left without an end or with NUL in them:
/// they were not synced, so no change depends on them.
static std::vector<JournalEntry> parse(const std::string &journal)
{
    std::vector<JournalEntry> entries;
    const auto last_number = [&] { return entries.empty() ? 0 : entries.back().entry.number; };
    size_t begin = 0;
    for (size_t end = 0; (end = journal.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string_view line(journal.data() + begin, end - begin);
        if (line.find('\0') != std::string_view::npos)
            continue;
        const Json object = decode_line(line);
        const auto number = object.is_object() ? object.value("entry", EntryNumber{0}) : 0;
        const bool is_open = !entries.empty() && !entries.back().members.contains("succeeded");
        if (number > last_number() || (number == 0 && !is_open)) {
            const EntryNumber next = last_number() + 1;
            entries.emplace_back().entry.number = std::max(number, next);
        }
        JournalEntry &current = entries.back();
        current.lines.append(line).append("\n");
        if (number == current.entry.number)
            current.members.update(object);
        else
            current.entry.fault = "it is damaged";
    }
    for (JournalEntry &complete : entries)
        try {
            decode(complete);
        } catch (const Json::exception &) {
            complete.entry.fault = "it is damaged";
        } catch (const HostError &error) {
            complete.entry.fault = error.what();
        }
    return entries;
}

// An earlier version kept a note of the last restore in place of a journal. The note becomes an entry.

static constexpr char EARLIER_NOTE[] = "last-restore.json";
static constexpr char EARLIER_REPORT[] = "last-exchange.json";
static constexpr char DAMAGED_SUFFIX[] = ".damaged"; ///< of a note that can't be read

static void add_earlier_change(const Json &change, Json &entry)
{
    const auto row = std::ranges::find(ALL_SETTINGS, change.at("key").get<std::string>(), &SettingRow::key);
    if (row == std::end(ALL_SETTINGS))
        throw HostError("no setting has the key " + change["key"].get<std::string>());
    if (!entry["before"].contains(row->member))
        entry["before"][row->member] = change.at("before");
    entry["planned"][row->member] = change.at("after");
}

/// Reads the note into the members of an entry. Each line of the note is a report or a numbered change.
static void read_earlier_note(const std::string &note, Json &entry)
{
    Json report;
    Json changes = Json::object();
    std::istringstream lines(note);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        const Json object = Json::parse(line);
        if (object.contains("change"))
            changes[std::to_string(object["change"].get<size_t>())] = object;
        else
            report = object;
    }
    if (!report.at("changes").empty()) // a complete report has all changes
        changes = report["changes"];
    entry["backup"] = report.at("backup");
    for (const Json &change : changes)
        if (change.at("outcome") != "refused")
            add_earlier_change(change, entry);
    if (report.at("result") != "undecided") {
        entry["succeeded"] = report["result"] == "succeeded";
        entry["reason"] = report.at("reason");
    }
}

namespace
{

/// The note as an entry after the last one.
struct EarlierNote {
    bool is_there = false;
    bool is_readable = true;
    std::string line; ///< of the journal; empty if the journal has this entry already
};

} // namespace

static EarlierNote convert_earlier_note(const std::vector<JournalEntry> &entries)
{
    const fs::path file = state_root() / EARLIER_NOTE;
    struct stat status = {};
    if (lstat(file.c_str(), &status) != 0)
        return {};
    EarlierNote note;
    note.is_there = true;
    const std::int64_t time = std::int64_t{status.st_mtim.tv_sec} * 1000 + status.st_mtim.tv_nsec / 1'000'000;
    Json entry = {{"entry", entries.empty() ? 1 : entries.back().entry.number + 1},
                  {"time", time},
                  {"what", "restore"}};
    try {
        read_earlier_note(read_file(file, MAX_SIZE), entry);
    } catch (const std::exception &error) {
        note.is_readable = false;
        entry["fault"] = std::string("an earlier version kept it in ") + EARLIER_NOTE + DAMAGED_SUFFIX +
                         ", which is damaged";
    }
    if (std::ranges::none_of(entries, [&](const JournalEntry &known) { return known.entry.time == time; }))
        note.line = encode_line(entry);
    return note;
}

// The entries to keep.

static bool can_be_undone(const HistoryEntry &entry)
{
    return !entry.changed.empty() && !entry.is_undone;
}

/// Sets HistoryEntry::is_undone. An undo that is itself undone does not count.
static void mark_undone(std::vector<JournalEntry> &entries)
{
    std::set<EntryNumber> undone;
    for (size_t i = entries.size(); i-- > 0;) {
        HistoryEntry &entry = entries[i].entry;
        entry.is_undone = undone.contains(entry.number);
        if (entry.succeeded == true && !entry.is_undone)
            undone.insert(entry.undoes);
    }
}

static void drop_old(std::vector<JournalEntry> &entries)
{
    size_t newest = 0;
    size_t undoable = 0;
    std::vector<JournalEntry> kept;
    for (size_t i = entries.size(); i-- > 0;) {
        const HistoryEntry &entry = entries[i].entry;
        const bool is_undoable = can_be_undone(entry) && ++undoable <= MAX_KEPT;
        if (++newest <= MAX_KEPT || is_undoable || !entry.fault.empty())
            kept.push_back(std::move(entries[i]));
    }
    entries.assign(std::make_move_iterator(kept.rbegin()), std::make_move_iterator(kept.rend()));
}

static std::vector<JournalEntry> select(const std::string &journal)
{
    std::vector<JournalEntry> entries = parse(journal);
    mark_undone(entries);
    drop_old(entries);
    return entries;
}

std::vector<HistoryEntry> read_history()
{
    std::string journal;
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(journal_file(), ignored)))
        journal = read_file(journal_file(), MAX_SIZE);
    journal += convert_earlier_note(parse(journal)).line;
    std::vector<HistoryEntry> entries;
    for (JournalEntry &kept : select(journal))
        entries.push_back(std::move(kept.entry));
    return entries;
}

const HistoryEntry *find_undoable(const std::vector<HistoryEntry> &entries)
{
    for (size_t i = entries.size(); i-- > 0;) {
        const HistoryEntry &entry = entries[i];
        if (!entry.fault.empty())
            throw HostError("entry " + std::to_string(entry.number) + " of the history can't be read: " +
                            entry.fault + "; name the entry that is to be undone");
        if (can_be_undone(entry) && (entry.operation == "restore" || entry.operation.starts_with("settings")))
            return &entry;
    }
    return nullptr;
}

std::uint64_t highest_backup(const std::string &store)
try {
    std::uint64_t highest = 0;
    for (const HistoryEntry &entry : read_history())
        if (entry.store == store)
            highest = std::max(highest, entry.backup);
    return highest;
} catch (const HostError &) {
    return 0;
}

// Writing.

static constexpr char ADVICE[] = "; make sure that this file can be written, and try again";

void require_writable_history()
{
    require_writable_file(journal_file());
}

HistoryWriter::HistoryWriter(const std::string &operation, EntryNumber undoes)
{
    entry.time = g_get_real_time() / 1000;
    try {
        open();
        Json line = {{"time", entry.time}, {"what", operation}};
        if (undoes != 0)
            line["undoes"] = undoes;
        append(line);
    } catch (const std::exception &error) { // also of the file system and of JSON
        failure = error.what();
    }
}

void HistoryWriter::open()
{
    make_private_folder(state_root());
    file = open_file(journal_file(), O_RDWR | O_CREAT);
    if (!find_end())
        tidy();
    if (ftruncate(file.get(), size) != 0) // removes an incomplete line
        throw HostError(std::string("can't write ") + JOURNAL + ": " + g_strerror(errno));
}

/// Finds the end of the last complete line and the number of the new entry. Reads only the journal's last
/// part.
///
/// @return false when tidy() must read or rewrite the whole journal
bool HistoryWriter::find_end()
{
    static constexpr off_t TAIL = off_t{64} << 10;
    const off_t begin = std::max<off_t>(lseek(file.get(), 0, SEEK_END) - TAIL, 0);
    const std::string tail = read_from(file, begin);
    const size_t end = tail.find_last_of('\n');
    if (end == std::string::npos || end == 0)
        return false;
    const size_t before = tail.find_last_of('\n', end - 1);
    const Json last = decode_line(std::string_view(tail).substr(before + 1, end - before - 1));
    if (!last.is_object())
        return false;
    entry.number = last.at("entry").get<EntryNumber>() + 1;
    size = begin + static_cast<off_t>(end) + 1;
    std::error_code ignored;
    return entry.number % REWRITE_INTERVAL != 0 &&
           !fs::exists(fs::symlink_status(state_root() / EARLIER_NOTE, ignored));
}

/// Rewrites the journal without old entries, and moves an earlier version's note into it.
void HistoryWriter::tidy()
{
    std::string journal = read_from(file, 0);
    journal.erase(journal.rfind('\n') + 1);
    const EarlierNote note = convert_earlier_note(parse(journal));
    std::string kept;
    entry.number = 1;
    for (const JournalEntry &known : select(journal + note.line)) {
        kept += known.lines;
        entry.number = known.entry.number + 1;
    }
    if (kept != journal) {
        replace_file_durably(journal_file(), kept);
        file = open_file(journal_file(), O_RDWR);
    }
    size = static_cast<off_t>(kept.size());
    const fs::path note_file = state_root() / EARLIER_NOTE;
    if (note.is_there && note.is_readable)
        remove_file_durably(note_file);
    else if (note.is_there)
        fs::rename(note_file, note_file.string() + DAMAGED_SUFFIX);
    fs::remove(state_root() / EARLIER_REPORT);
}

void HistoryWriter::append(Json line)
{
    if (!failure.empty())
        throw HostError(failure);
    line["entry"] = entry.number;
    if (entry.backup != 0)
        line.update({{"backup", entry.backup}, {"store", entry.store}});
    const std::string text = encode_line(line);
    if (!write_at(file, size, text)) {
        failure = "can't write " + journal_file().string() + ": " + g_strerror(errno);
        throw HostError(failure);
    }
    size += static_cast<off_t>(text.size());
}

void HistoryWriter::set_backup(std::uint64_t backup, const std::string &store)
{
    entry.backup = backup;
    entry.store = store;
}

void HistoryWriter::plan(const NamedValues &before, const NamedValues &planned)
{
    entry.before.insert(before.begin(), before.end());
    entry.planned.insert(planned.begin(), planned.end());
    try {
        append({{"before", entry.before}, {"planned", entry.planned}});
        if (fdatasync(file.get()) != 0 || !sync_folder(state_root()))
            throw HostError("can't write " + journal_file().string() + ": " + g_strerror(errno));
    } catch (const HostError &error) {
        throw PlatformError(std::string("nothing was changed, since it could not be undone: ") +
                            error.what() + ADVICE);
    }
    static_cast<void>(
        fallocate(file.get(), FALLOC_FL_KEEP_SIZE, size, RESERVED_SIZE)); // not all file systems support it
}

void HistoryWriter::finish(bool succeeded, const std::string &reason, const std::vector<std::string> &changed)
{
    try {
        append({{"succeeded", succeeded}, {"reason", reason}, {"changed", changed}});
        if (!entry.planned.empty() && fdatasync(file.get()) != 0)
            throw HostError("can't write " + journal_file().string() + ": " + g_strerror(errno));
    } catch (const HostError &error) {
        g_printerr("can't note the result in the history: %s\n", error.what());
    }
}
