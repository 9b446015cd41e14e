// The steps of a backup and of a restore, in their order.

#include "exchange.h"

#include <algorithm>
#include <map>
#include <span>

#include <glib.h>

#include "account.h"
#include "files.h"
#include "handles.h"
#include "paths.h"
#include "snapshot.h"
#include "text.h"

static constexpr char NOT_READ[] = "the service did not read ";

Exchange::Exchange(Direction which, const Callbacks &registered) : direction(which), callbacks(registered)
{
    if (direction == Direction::restore) {
        exchange_report.operation = "restore";
        steps = {&Exchange::prepare,       &Exchange::ask_for_restoration_path,
                 &Exchange::download,      &Exchange::look_at_device,
                 &Exchange::begin_journal, &Exchange::have_records_restored};
    } else if (callbacks.backup != nullptr) {
        exchange_report.operation = "backup";
        steps = {&Exchange::prepare, &Exchange::ask_for_keys_and_dates, &Exchange::have_records_filled,
                 &Exchange::upload};
    } else {
        exchange_report.operation = "info";
        steps = {&Exchange::prepare, &Exchange::ask_for_keys_and_dates};
    }
}

bool Exchange::run_step()
{
    (this->*steps[next])();
    return ++next == steps.size();
}

/// Calls a callback that is to send an answer before it returns.
template <class... Args>
void Exchange::ask(Answer answer, void (*callback)(Args...), Args... args)
{
    awaited = answer;
    callback(args...);
    awaited = Answer::none;
}

void Exchange::prepare()
{
    ask(Answer::ready, callbacks.preparation);
    if (!ready)
        throw HostError("the service is not ready");
}

// The device.

/// Calls `visit` with each of these that the host keeps.
template <class Visit>
static void for_each_kept(std::span<const SettingRow> rows, Visit visit)
{
    for (const SettingRow &row : rows)
        if (device_access(row.place) != nullptr)
            visit(row);
}

/// Calls `visit` with each setting, and each list that decides what is restored, that the host keeps.
template <class Visit>
static void for_each_row(Visit visit)
{
    for_each_kept(SETTINGS, visit);
    for_each_kept(DOWNLOADED_LISTS, visit);
}

/// Calls `visit` with each place that the host keeps, and its rows. One that can't be used is a trouble.
template <class Visit>
static void for_each_place(Visit visit)
{
    std::map<SettingPlace, std::vector<SettingRow>> rows;
    for_each_row([&](const SettingRow &row) { rows[row.place].push_back(row); });
    for (const auto &[place, its_rows] : rows)
        try {
            visit(*device_access(place), its_rows);
        } catch (const PlatformError &error) {
            account().note({Trouble::Kind::unusable, place, error.what()});
        }
}

/// What can be read of the device, by the members of the rows.
static std::map<std::string, DeviceValue> read_device()
{
    std::map<std::string, DeviceValue> values;
    for_each_place([&](const DeviceAccess &access, const std::vector<SettingRow> &rows) {
        const std::vector<DeviceValue> read = access.read_all(rows);
        for (size_t i = 0; i < rows.size(); i++)
            values[rows[i].member] = read[i];
    });
    return values;
}

/// What the service changed in one of its callbacks outlives a power cut from now on.
static void make_changes_durable()
{
    if (!account().changes().empty())
        for_each_place([](const DeviceAccess &access, const auto &) {
            if (access.make_durable != nullptr)
                access.make_durable();
        });
}

void Exchange::require_no_trouble() const
{
    for (const Trouble &trouble : account().troubles())
        if (trouble.kind == Trouble::Kind::refused)
            throw HostError(trouble.reason);
        else
            throw PlatformError(trouble.reason);
}

// Backup.

void Exchange::ask_for_keys_and_dates()
{
    ask(Answer::keys_and_dates, callbacks.keys_and_dates);
    if (!records || records->empty())
        throw HostError("the service announced no records");
    for (const CloudRecord &record : *records)
        if (!record.key || !record.date)
            throw HostError("the service announced a record without a key or a date");
    exchange_report.records = *records;
}

void Exchange::have_records_filled()
{
    ask(Answer::backup_path, callbacks.backup, make_list(*records));
    make_changes_durable(); // the service sets languages that were not set
    // What could not be read is a default in the snapshot, which looks like any other.
    require_no_trouble();
    if (!path)
        throw HostError("the service had nothing to back up");
    // Else a file of an earlier backup would pass for this one's.
    if (written_path != *path)
        throw HostError(file_error.empty() ? "the service wrote no backup file" : file_error);
}

void Exchange::upload()
{
    const std::string content =
        account().is_trial() ? written : ::read_file(host_path(*path), MAX_RECORD_FILE_SIZE);
    if (content != written)
        throw HostError("the backup file is not what was written into it");
    const CloudRecords filled = check_upload(content);
    exchange_report.snapshot = filled.back().value.value_or("");
    require_all_read();
    store(content, filled);
}

/// The records in a backup file, once they are known to be those that were announced.
CloudRecords Exchange::check_upload(const std::string &content) const
{
    const CloudRecords filled = decode_record_file(content);
    if (filled.size() != records->size())
        throw HostError("the backup file holds other records than were announced");
    for (size_t i = 0; i < filled.size(); i++) {
        const std::string key = filled[i].key.value_or("");
        if (filled[i].key != (*records)[i].key)
            throw HostError("the backup file holds a record \"" + key + "\" that was not announced");
        if (!filled[i].value)
            throw HostError("record \"" + key + "\" has no value: the settings could not be read");
    }
    return filled;
}

/// Those that the service did not read for each of so many records.
static std::vector<std::string> find_unread(std::span<const SettingRow> rows, size_t records)
{
    std::vector<std::string> unread;
    for_each_kept(rows, [&](const SettingRow &row) {
        if (account().count(Use::reading, row) < records)
            unread.emplace_back(row.member);
    });
    return unread;
}

/// A read that fails on its way here leaves a default in the snapshot, and nothing else in the account.
void Exchange::require_all_read() const
{
    if (const auto unread = find_unread(SETTINGS, records->size()); !unread.empty())
        throw HostError(NOT_READ + join(unread, ", "));
}

static bool holds_same(const CloudRecords &one, const CloudRecords &other)
{
    return std::equal(
        one.begin(), one.end(), other.begin(), other.end(), [](const CloudRecord &a, const CloudRecord &b) {
            return a.key == b.key && is_snapshot(a.value.value_or("")) && is_snapshot(b.value.value_or("")) &&
                   is_same_snapshot(read_snapshot(*a.value), read_snapshot(*b.value));
        });
}

/// The number of the newest backup if it holds the same as `records`, else 0.
static BackupNumber find_same(const CloudStore &store, const CloudRecords &records)
{
    const std::vector<BackupNumber> known = store.list().numbers;
    try {
        return !known.empty() && holds_same(store.read(known.back()).records, records) ? known.back() : 0;
    } catch (const DamagedError &) {
        return 0;
    } catch (const NoBackupError &) { // deleted just now
        return 0;
    }
}

void Exchange::store(const std::string &content, const CloudRecords &filled)
{
    const auto store = open_store();
    if (is_asked_for(IF_CHANGED_VARIABLE))
        exchange_report.backup = find_same(*store, filled);
    if (exchange_report.backup != 0)
        return;
    if (account().is_trial()) {
        store->require_writable();
        return;
    }
    exchange_report.storing = true;
    exchange_report.backup = store->add(content);
    exchange_report.stored = true;
}

// Restore.

void Exchange::ask_for_restoration_path()
{
    ask(Answer::restoration_path, callbacks.restoration_path);
    if (!path)
        throw HostError("the service named no restoration path");
}

void Exchange::download()
{
    const auto store = open_store();
    const char *wanted = g_getenv(RESTORE_VARIABLE);
    const BackupNumber number = store->find(wanted == nullptr ? "" : wanted);
    exchange_report.backup = number;
    try {
        downloaded = store->read(number);
    } catch (const DamagedError &error) {
        throw DamagedError("backup " + std::to_string(number) + " is refused: " + error.what());
    }
    source.file = host_path(*path);
    if (!account().is_trial())
        replace_file(source.file, downloaded.content);
}

/// A device that can't be read or written now is one that the service must not begin to change.
void Exchange::look_at_device()
{
    for_each_place([](const DeviceAccess &access, const auto &) { access.require_writable(); });
    const std::map<std::string, DeviceValue> values = read_device();
    require_no_trouble();
    for_each_row([&](const SettingRow &row) {
        exchange_report.settings.push_back({row.member, values.at(row.member), values.at(row.member)});
    });
}

/// From here on the restore changes the device, and each change can be undone.
void Exchange::begin_journal()
{
    if (!account().is_trial())
        journal.emplace(exchange_report);
}

void Exchange::keep(const Change &change, const std::string &line)
{
    // The service sets what it could not read to a default: be that kept from what is set.
    if (direction == Direction::backup && change.outcome == Change::Outcome::pending && change.before)
        throw PlatformError("a backup must not change what is set: " + change.key);
    if (journal)
        journal->note(change, line);
}

void Exchange::have_records_restored()
{
    ask(Answer::record_list, callbacks.restoration, &source);
    make_changes_durable();
    report_settings();
    if (!records)
        throw HostError("the service could not read the records of backup " +
                        std::to_string(exchange_report.backup));
    exchange_report.records = *records;
    if (records->size() != downloaded.records.size())
        throw HostError("the service did not hand back all records");
    std::vector<std::string> applied;
    for (size_t i = 0; i < records->size(); i++)
        if (!(*records)[i].failed)
            applied.push_back(downloaded.records[i].value.value_or(""));
    if (!applied.empty()) {
        exchange_report.snapshot = applied.back();
        find_unasked(applied);
    }
    require_all_restored();
}

/// The changes to a setting, in their order.
static std::vector<Change> find_changes(const SettingRow &row)
{
    std::vector<Change> found;
    for (const Change &change : account().changes())
        if (change.place == row.place && change.key == row.key)
            found.push_back(change);
    return found;
}

/// What each setting came to: what the device holds now, or what is known of that.
void Exchange::report_settings()
{
    const std::map<std::string, DeviceValue> values = read_device();
    auto setting = exchange_report.settings.begin();
    for_each_row([&](const SettingRow &row) {
        SettingReport &report = *setting++;
        const std::vector<Change> changes = find_changes(row);
        for (const Change &change : changes)
            if (change.outcome == Change::Outcome::made)
                report.after = change.after;
        if (const auto value = values.find(row.member); value != values.end())
            report.after = value->second;
        if (!changes.empty() &&
            (changes.back().outcome != Change::Outcome::made || report.after != changes.back().after))
            unwritten.emplace_back(row.member);
    });
}

/// Finds what the service did not ask for although it applied these snapshots.
void Exchange::find_unasked(const std::vector<std::string> &snapshots)
{
    auto setting = exchange_report.settings.begin();
    for_each_kept(SETTINGS, [&](const SettingRow &row) {
        const SettingReport &report = *setting++;
        if (!has_asked(row, report.after, snapshots) &&
            std::find(unwritten.begin(), unwritten.end(), row.member) == unwritten.end())
            unwritten.emplace_back(row.member);
    });
}

/// Whether the service has asked for all that a restore of these snapshots takes of a setting. A call that
/// fails on its way here is in no account.
bool Exchange::has_asked(const SettingRow &row, const DeviceValue &after,
                         const std::vector<std::string> &snapshots) const
{
    const size_t writes = account().count(Use::writing, row);
    if (row.form == SettingForm::identifier) { // which may be active already
        const std::vector<std::string> wanted = texts_in(snapshots.back(), row);
        return wanted.empty() || after == DeviceValue(wanted.front());
    }
    if (row.form == SettingForm::languages) { // of which none may be downloaded
        const std::string known = list_before(exchange_report, DOWNLOADED_LISTS[0]);
        const auto is_selected = [&](const std::string &snapshot) {
            const std::vector<std::string> languages = texts_in(snapshot, row);
            return std::any_of(languages.begin(), languages.end(), [&](const std::string &language) {
                return known.find(language) != std::string::npos;
            });
        };
        return std::count_if(snapshots.begin(), snapshots.end(), is_selected) <= static_cast<long>(writes);
    }
    return writes >= snapshots.size();
}

void Exchange::require_all_restored() const
{
    std::vector<std::string> failed;
    for (const CloudRecord &record : *records)
        if (record.failed)
            failed.push_back("\"" + record.key.value_or("") + "\"");

    bool no_platform = false;
    std::vector<std::string> reasons;
    if (!failed.empty())
        reasons.push_back("not restored: record " + join(failed, ", "));
    if (!unwritten.empty())
        reasons.push_back("not restored: " + join(unwritten, ", "));
    if (const auto unread = find_unread(DOWNLOADED_LISTS, records->size() - failed.size()); !unread.empty())
        reasons.push_back(NOT_READ + join(unread, ", "));
    for (const Trouble &trouble : account().troubles()) {
        if (trouble.kind == Trouble::Kind::unfit) // a restore may well mend it
            continue;
        reasons.push_back(trouble.reason);
        no_platform = no_platform || trouble.kind == Trouble::Kind::unusable;
    }
    if (no_platform)
        throw PlatformError(join(reasons, "; "));
    if (!reasons.empty())
        throw HostError(join(reasons, "; "));
}

// The result.

void Exchange::decide(ExchangeReport::Result result, const std::string &reason)
{
    exchange_report.result = result;
    exchange_report.reason = reason;
    exchange_report.changes = account().changes();
    exchange_report.troubles = account().troubles();
    report_line = encode_report(exchange_report);
    if (journal)
        journal->finish(report_line, !exchange_report.changes.empty());
}

void Exchange::complete() const
{
    callbacks.completed(exchange_report.result == ExchangeReport::Result::succeeded ? 1 : 0);
}

// The service's part.

int Exchange::answer_ready(int is_ready)
{
    ready = is_ready != 0;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int Exchange::answer_list(orvanta_cloud_list_handle list, int flag)
{
    records.reset();
    if (flag == ORVANTA_CLOUD_SEND_NOTHING)
        return ORVANTA_CLOUD_ERROR_NONE;
    records = copy_records(list);
    return records ? ORVANTA_CLOUD_ERROR_NONE : ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
}

int Exchange::answer_path(const char *device_path, int flag)
{
    path.reset();
    if (flag == ORVANTA_CLOUD_SEND_NOTHING)
        return ORVANTA_CLOUD_ERROR_NONE;
    if (device_path == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    path = device_path;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int Exchange::write_file(orvanta_cloud_list_handle list, const char *device_path)
{
    const std::optional<CloudRecords> content = copy_records(list);
    if (!content || device_path == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    try {
        const std::string text = encode_record_file(*content);
        const std::filesystem::path file = host_path(device_path);
        if (!account().is_trial())
            replace_file(file, text);
        written_path = device_path;
        written = text;
        return ORVANTA_CLOUD_ERROR_NONE;
    } catch (const HostError &error) {
        file_error = error.what();
        return ORVANTA_CLOUD_ERROR_IO;
    }
}

int Exchange::read_file(orvanta_cloud_source_handle handle, orvanta_cloud_list_handle *list)
{
    if (handle != &source || list == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    std::string content;
    try {
        content = account().is_trial() ? downloaded.content : ::read_file(source.file, MAX_RECORD_FILE_SIZE);
    } catch (const HostError &) {
        return ORVANTA_CLOUD_ERROR_IO;
    }
    try {
        *list = make_list(content == downloaded.content ? downloaded.records : decode_record_file(content));
        return ORVANTA_CLOUD_ERROR_NONE;
    } catch (const HostError &) {
        return ORVANTA_CLOUD_ERROR_BAD_FILE;
    }
}
