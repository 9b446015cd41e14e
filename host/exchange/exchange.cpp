// The steps of a backup and of a restore, in order.

#include "exchange.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "account.h"
#include "files.h"
#include "handles.h"
#include "ime_backup_trusted_folder.h"
#include "paths.h"
#include "shared_names.h"

Exchange::Exchange(Direction which, const Callbacks &registered) : direction(which), callbacks(registered)
{
    if (direction == Direction::restore) {
        exchange_report.operation = "restore";
        steps = {&Exchange::prepare, &Exchange::ask_for_restoration_path, &Exchange::download,
                 &Exchange::plan_restore, &Exchange::restore_records};
    } else if (callbacks.backup != nullptr) {
        exchange_report.operation = "backup";
        steps = {&Exchange::prepare, &Exchange::ask_for_keys_and_dates, &Exchange::plan_backup,
                 &Exchange::fill_records, &Exchange::upload};
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

/// Calls a callback that must send an answer before it returns.
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

/// Reads the device. A place that can't be read is noted as a problem if the service uses it.
DeviceState Exchange::read_device()
{
    DeviceState state;
    // The settings store first, then the SCIM daemon, which returns all its settings with one request.
    for (const bool settings_store : {true, false}) {
        std::vector<SettingRow> rows(std::begin(ALL_SETTINGS), std::end(ALL_SETTINGS));
        std::erase_if(rows, [&](const SettingRow &row) {
            return (row.place == SettingPlace::settings_store) != settings_store;
        });
        try {
            const std::vector<DeviceValue> values = device.read(rows);
            for (size_t i = 0; i < rows.size(); i++)
                state[index_of(rows[i])] = values[i];
        } catch (const PlatformError &error) {
            for (const SettingRow &row : rows) {
                unread_places.insert(row.place);
                if (device.serves(row))
                    account().note({row.place, error.what()});
            }
        }
    }
    return state;
}

/// Throws if there are reasons for a failure, or problems in the account. The message has the reasons first.
static void require_no_problem(std::vector<std::string> reasons = {})
{
    bool is_daemon = false;
    Problem::Kind kind = Problem::Kind::failure;
    for (const Problem &problem : account().problems()) {
        if (std::find(reasons.begin(), reasons.end(), problem.reason) == reasons.end())
            reasons.push_back(problem.reason);
        is_daemon = is_daemon || problem.place != SettingPlace::settings_store;
        kind = std::max(kind, problem.kind);
    }
    if (kind == Problem::Kind::interruption)
        throw InterruptedError(join(reasons, "; "));
    if (kind == Problem::Kind::timeout)
        throw TimeoutError(join(reasons, "; "));
    if (is_daemon)
        throw DaemonError(join(reasons, "; "));
    if (!account().problems().empty())
        throw PlatformError(join(reasons, "; "));
    if (!reasons.empty())
        throw HostError(join(reasons, "; "));
}

DeviceState Exchange::read_device_or_throw()
{
    DeviceState state = read_device();
    require_no_problem();
    return state;
}

/// Reports the limits of a success: settings that could not be checked, since another library keeps them in
/// the service's process, and changes that may not survive a power cut.
void Exchange::report_caveats()
{
    std::vector<std::string> unserved;
    for (const SettingRow &row : SETTINGS)
        if (!device.serves(row))
            unserved.emplace_back(row.member);
    std::vector<std::string> caveats = {device.durability_warning()};
    if (!unserved.empty())
        caveats.insert(caveats.begin(),
                       "not checked, since kept by another library: " + join(unserved, ", "));
    std::erase(caveats, "");
    exchange_report.reason = join(caveats, "; ");
}

/// Describes a setting whose value is not the planned one, for people.
static std::string describe_difference(const SettingRow &row, const DeviceValue &actual,
                                       const DeviceValue &planned)
{
    return std::string(row.member) + " (" + format_value(row, actual) + " instead of " +
           format_value(row, planned) + ")";
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

void Exchange::plan_backup()
{
    before = read_device_or_throw();
    backup_plan = ::plan_backup(before, std::bind_front(&Device::refuses, &device));
}

void Exchange::fill_records()
{
    ask(Answer::backup_path, callbacks.backup, make_list(*records));
    if (!account().changes().empty()) // the service sets default languages if none are set
        device.make_durable();
    require_no_problem();
    for (const Obstacle &obstacle : backup_plan->obstacles)
        if (device.serves(obstacle.row))
            throw_obstacle(obstacle);
    if (!path)
        throw HostError("the service had nothing to back up");
    // Without this check, the file of an earlier backup could be uploaded.
    if (written_path != *path)
        throw HostError(file_error.empty() ? "the service wrote no backup file" : file_error);
}

void Exchange::upload()
{
    const std::string content = ::read_file(host_path(*path), MAX_RECORD_FILE_SIZE);
    if (content != written_content)
        throw HostError("the backup file was changed after it was written");
    require_planned_backup(check_upload(content));
    report_caveats();
    const auto store = open_store(highest_backup);
    exchange_report.storing = true;
    exchange_report.backup = store->add(content);
    history->set_backup(exchange_report.backup, store->location());
    exchange_report.stored = true;
}

/// Returns the records in a backup file. Throws if they are not the announced ones.
CloudRecords Exchange::check_upload(const std::string &content) const
{
    const CloudRecords filled = decode_record_file(content);
    if (filled.size() != records->size())
        throw HostError("the backup file holds a different number of records than were announced");
    for (size_t i = 0; i < filled.size(); i++) {
        const std::string key = filled[i].key.value_or("");
        if (filled[i].key != (*records)[i].key || filled[i].date != (*records)[i].date)
            throw HostError("the backup file holds a record \"" + key + "\" that was not announced");
        if (!filled[i].value)
            throw HostError("record \"" + key + "\" has no value: the settings could not be read");
    }
    return filled;
}

/// Returns the indexes of the settings in which a snapshot differs from the plan.
static std::vector<size_t> find_differences(const std::string &value, const BackupPlan &plan)
{
    const std::optional<Snapshot> snapshot = read_snapshot(value);
    if (!snapshot || !snapshot->is_object)
        throw HostError("the service made a snapshot that can't be read");
    std::vector<size_t> differences;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (snapshot->values[i] != plan.snapshot[i])
            differences.push_back(i);
    if (differences.empty() && !snapshot->problems.empty())
        throw HostError("the service made an invalid snapshot: " + join(snapshot->problems, "; "));
    return differences;
}

/// Throws unless each record holds the device's values. A setting that was changed meanwhile may have the old
/// or the new value.
void Exchange::require_planned_backup(const CloudRecords &filled)
{
    std::optional<BackupPlan> now;
    std::vector<std::string> wrong;
    for (const CloudRecord &record : filled)
        for (const size_t i : find_differences(*record.value, *backup_plan)) {
            const SettingRow &row = SETTINGS[i];
            if (!device.serves(row))
                continue;
            if (!now)
                now = ::plan_backup(read_device_or_throw(), std::bind_front(&Device::refuses, &device));
            const SnapshotValue actual = read_snapshot(*record.value)->values[i];
            if (actual != now->snapshot[i])
                wrong.push_back(describe_difference(row, device_value(row, actual),
                                                    device_value(row, backup_plan->snapshot[i])));
        }
    if (!wrong.empty())
        throw HostError("the service did not back up what the device holds: " + join(wrong, ", "));
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
    const char *wanted = getenv(RESTORE_VARIABLE);
    const BackupNumber number = store->find(wanted == nullptr ? "" : wanted);
    exchange_report.backup = number;
    history->set_backup(number, store->location());
    downloaded = read_for_restore(*store, number);
    source.file = host_path(*path);
    replace_file(source.file, downloaded.content);
}

/// Plans the restore, and notes the plan in the history, so that the restore can be undone. Throws if the
/// device can't be read and written: the service must then not begin to change it.
void Exchange::plan_restore()
{
    for (const SettingRow &row : SETTINGS)
        try {
            device.require_writable(row);
        } catch (const PlatformError &) {
            if (device.serves(row))
                throw;
        }
    std::vector<std::optional<std::string>> values;
    for (const CloudRecord &record : downloaded.records)
        values.push_back(record.value);
    before = read_device_or_throw();
    restore_plan = ::plan_restore(values, before, std::bind_front(&Device::refuses, &device));
    exchange_report = report_planned(*restore_plan, exchange_report.backup, downloaded.records);
    exchange_report.result = ExchangeReport::Result::undecided;
    for (SettingReport &setting : exchange_report.settings) {
        setting.after = setting.before;
        setting.why = NOT_CHECKED;
    }
    NamedValues planned;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (before[i] != restore_plan->device[i])
            planned.emplace(SETTINGS[i].member, restore_plan->device[i]);
    if (!planned.empty())
        history->plan(name_values(before), planned);
}

void Exchange::note(const Change &change)
{
    const auto row = std::ranges::find_if(SETTINGS, [&](const SettingRow &known) {
        return known.place == change.place && known.key == change.key;
    });
    const bool is_planned =
        row != SETTINGS.end() &&
        (restore_plan || (backup_plan && change.after == backup_plan->device[index_of(*row)]));
    if (!is_planned)
        throw PlatformError("the service must not change " + change.key + " in a " +
                            exchange_report.operation);
    if (!history->has_planned(row->member)) // one record may change what the next changes back
        history->plan(name_values(before), {{row->member, change.after}});
}

void Exchange::restore_records()
{
    ask(Answer::record_list, callbacks.restoration, &source);
    try {
        device.make_durable(); // includes changes of a process that was killed
    } catch (const DaemonError &error) {
        account().note({SettingPlace::configuration, error.what()});
    } catch (const PlatformError &error) {
        account().note({SettingPlace::settings_store, error.what()});
    }
    std::vector<std::string> reasons = {exchange_report.reason, compare_records(),
                                        compare_settings(after.emplace(read_device()))};
    std::erase(reasons, "");
    require_no_problem(reasons);
    report_caveats();
}

/// Returns how the records from the service differ from the plan; empty if they don't.
std::string Exchange::compare_records() const
{
    if (downloaded.records.empty())
        return "";
    if (!records)
        return "the service handed back no records";
    if (records->size() != exchange_report.records.size())
        return "the service did not hand back all records";
    for (size_t i = 0; i < records->size(); i++) {
        const CloudRecord &planned = exchange_report.records[i];
        const std::string name = "record \"" + planned.key.value_or("") + "\"";
        if ((*records)[i].failed != planned.failed)
            return "the service " + std::string(planned.failed ? "restored " : "did not restore ") + name;
        if ((*records)[i].key.value_or("") != planned.key)
            return "the service handed back " + name + " under another key";
    }
    return "";
}

/// Reports the value of each setting.
///
/// @return how the device differs from the plan; empty if it doesn't
std::string Exchange::compare_settings(const DeviceState &state)
{
    std::vector<std::string> wrong;
    for (size_t i = 0; i < state.size(); i++) {
        const SettingRow &row = ALL_SETTINGS[i];
        if (unread_places.contains(row.place) || !device.serves(row))
            continue;
        const DeviceValue &planned = restore_plan->device[i];
        const bool is_right = state[i] == planned;
        if (!is_right)
            wrong.push_back(describe_difference(row, state[i], planned));
        if (i < SETTINGS.size()) {
            SettingReport &report = exchange_report.settings[i];
            report.after = state[i];
            report.why = is_right ? restore_plan->settings[i].why : "should be " + format_value(row, planned);
        }
    }
    return wrong.empty() ? "" : "not restored: " + join(wrong, ", ");
}

// The result.

/// Returns the settings that have changed or may have.
std::vector<std::string> Exchange::find_changed() const
{
    const auto is_changed = [&](const SettingRow &row) {
        const size_t i = index_of(row);
        const bool is_read = after && !unread_places.contains(row.place);
        return (is_read && (*after)[i] != before[i]) ||
               std::ranges::any_of(account().changes(), [&](const Change &change) {
                   return change.place == row.place && change.key == row.key &&
                          (change.outcome == Change::Outcome::pending ||
                           (!is_read && change.outcome == Change::Outcome::made));
               });
    };
    std::vector<std::string> changed;
    for (const SettingRow &row : ALL_SETTINGS)
        if (is_changed(row))
            changed.emplace_back(row.member);
    return changed;
}

void Exchange::finish(ExchangeReport::Result result, const std::string &reason)
{
    exchange_report.result = result;
    if (result != ExchangeReport::Result::succeeded)
        exchange_report.reason = reason;
    exchange_report.changes = account().changes();
    report_line = encode_report(exchange_report);
    if (history)
        history->finish(result == ExchangeReport::Result::succeeded, exchange_report.reason, find_changed());
}

void Exchange::complete() const
{
    callbacks.completed(exchange_report.result == ExchangeReport::Result::succeeded ? 1 : 0);
}

// Called by the service.

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
        if (const auto folder = file.parent_path();
            folder != host_path(IME_BACKUP_TRUSTED_FOLDER) && !std::filesystem::is_directory(folder))
            throw HostError("there is no folder " + folder.string());
        replace_file(file, text);
        written_path = device_path;
        written_content = text;
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
        content = ::read_file(source.file, MAX_RECORD_FILE_SIZE);
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
