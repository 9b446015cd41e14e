// The commands that run an exchange: backup, restore and info.

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>
#include <utility>

#include "backups.h"
#include "commands.h"
#include "history.h"
#include "orvanta_cloud_operations.h"
#include "setting.h"

/// Returns the newest backup if it holds the settings of this device, else 0. On an error it also returns 0:
/// the backup that follows reports the error.
static BackupNumber find_same()
{
    try {
        const auto store = open_store();
        const std::vector<BackupNumber> known = store->list().numbers;
        if (known.empty())
            return 0;
        const CloudRecords records = store->read(known.back()).records;
        const BackupPlan plan = plan_backup_here();
        const bool is_same = plan.obstacles.empty() && records.size() == 1 && records[0].key == RECORD_KEY &&
                             is_same_snapshot(read_snapshot(snapshot_in(records))->values, plan.snapshot);
        return is_same ? known.back() : 0;
    } catch (const TimeoutError &) {
        throw;
    } catch (const HostError &) {
        return 0;
    }
}

void run_backup(Cli &cli)
{
    cli.document.set_result(false);
    cli.document.set("backup", nullptr);
    cli.document.set("stored", false);
    if (const BackupNumber same = cli.has("--if-changed") ? find_same() : 0; same != 0) {
        const FileLock lock = lock_exchanges(false);
        HistoryWriter entry("backup");
        entry.set_backup(same, open_store()->location());
        entry.finish(true, "nothing was stored: " + name_of(same) + " holds the same settings", {});
        cli.document.set_result(true);
        cli.document.set("backup", same);
        cli.document.say(name_of(same) + " holds the same settings; nothing was stored");
        return;
    }
    const ExchangeReport report = run_exchange(cli, OPERATION_BACKUP);
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("stored", report.stored);
    throw_failure(report);
    report_success(cli.document, report.reason,
                   name_of(report.backup) + "  " + format_date(date_of(report.records)));
}

static void show_restore(Cli &cli, const ExchangeReport &report)
{
    Table records{{{"key", ""}, {"failed", ""}}};
    for (const CloudRecord &record : report.records) {
        const std::string key = record.key.value_or("");
        records.rows.push_back(
            {{key, "record " + key}, {record.failed, record.failed ? "failed" : "applied"}});
    }
    const auto failed =
        std::count_if(report.records.begin(), report.records.end(), std::mem_fn(&CloudRecord::failed));
    records.is_for_people = records.rows.size() > 1 || failed > 0;

    Table settings{
        {{"name", "setting"}, {"before", "before"}, {"wanted", FOR_SCRIPTS}, {"after", "after"}, {"why", ""}},
        {},
        Remarks::warnings};
    for (const SettingReport &setting : report.settings) {
        const SettingRow &row = find_setting(setting.member);
        settings.rows.push_back({setting.member, cell_of(row, setting.before),
                                 cell_of(row, device_value(row, setting.wanted)), cell_of(row, setting.after),
                                 setting.why});
    }
    // Without an applied record, there is nothing to compare the settings with.
    settings.is_for_people = std::cmp_less(failed, records.rows.size());
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("dry_run", cli.has("--dry-run"));
    cli.document.set("records", records);
    cli.document.set("settings", settings);
}

/// Returns the settings that --only and --except exclude.
static std::set<std::string> excluded_settings(const Cli &cli)
{
    if (cli.has("--only") && cli.has("--except"))
        throw UsageError("--only and --except can't be combined");
    const bool names_chosen = cli.has("--only");
    std::set<std::string> named;
    if (names_chosen || cli.has("--except")) {
        std::istringstream names(cli.value(names_chosen ? "--only" : "--except"));
        for (std::string name; std::getline(names, name, ',');)
            if (index_of(find_setting(name)) >= SETTINGS.size())
                throw UsageError(name + " is not part of a backup");
            else
                named.insert(name);
    }
    std::set<std::string> excluded;
    for (const SettingRow &row : SETTINGS)
        if (named.contains(row.member) == !names_chosen)
            excluded.insert(row.member);
    return excluded;
}

/// Changes the device as the report plans. On failure, corrects the report to what the device holds.
static void apply_plan(Cli &cli, ExchangeReport &report, const std::string &store)
{
    NewValues values;
    for (const SettingReport &setting : report.settings)
        if (setting.before != setting.after)
            values.emplace_back(find_setting(setting.member), setting.after);
    try {
        change_device(cli, {"restore", 0, report.backup, store, report.reason}, values);
        if (report.result == ExchangeReport::Result::succeeded)
            report.reason = open_device().durability_warning();
    } catch (const HostError &) {
        for (SettingReport &setting : report.settings) {
            const SettingRow &row = find_setting(setting.member);
            const DeviceValue planned = setting.after;
            try {
                setting.after = open_device().read_one(row);
                if (setting.after != planned)
                    setting.why = "should be " + format_value(row, planned);
            } catch (const HostError &) {
                setting.after = setting.before;
                setting.why = NOT_CHECKED;
            }
        }
        show_restore(cli, report);
        throw;
    }
}

/// Does a dry run, or restores chosen settings. The service can do neither: it restores whole backups.
static ExchangeReport restore_here(Cli &cli, const std::set<std::string> &excluded)
{
    const auto store = open_store();
    ExchangeReport report;
    report.backup = store->find(cli.argument());
    show_restore(cli, report);
    const CloudRecords records = read_for_restore(*store, report.backup).records;
    std::vector<std::optional<std::string>> values;
    for (const CloudRecord &record : records)
        values.push_back(record.value);

    const FileLock lock = lock_exchanges(cli.has("--dry-run"));
    Device &device = open_device();
    RestorePlan plan = plan_restore(values, device.read_all(), std::bind_front(&Device::refuses, &device));
    for (const SettingRow &row : SETTINGS)
        if (excluded.contains(row.member))
            std::erase(plan.refusals, std::exchange(plan.settings[index_of(row)].refusal, ""));
        else
            device.require_writable(row);
    report = report_planned(plan, report.backup, records);
    std::erase_if(report.settings,
                  [&](const SettingReport &setting) { return excluded.contains(setting.member); });
    const bool changes = std::ranges::any_of(
        report.settings, [](const SettingReport &setting) { return setting.before != setting.after; });
    if (changes)
        require_writable_history();
    if (!cli.has("--dry-run"))
        apply_plan(cli, report, store->location());
    return report;
}

void run_restore(Cli &cli)
{
    cli.document.set_result(false);
    show_restore(cli, {});
    const std::set<std::string> excluded = excluded_settings(cli);
    const ExchangeReport report = cli.has("--dry-run") || !excluded.empty()
                                      ? restore_here(cli, excluded)
                                      : run_exchange(cli, OPERATION_RESTORE, cli.argument());
    show_restore(cli, report);
    throw_failure(report);

    std::vector<std::string> different; // from the backup
    for (const SettingReport &setting : report.settings)
        if (!setting.why.empty() && setting.why != NOT_CHECKED)
            different.push_back(setting.member);
    if (cli.has("--strict") && !(different.empty() && report.reason.empty()))
        cli.status = EXIT_FAILED;
    report_success(cli.document, report.reason,
                   name_of(report.backup) + (cli.has("--dry-run") ? "  would be restored" : "  restored") +
                       (different.empty() ? "" : ", except " + join(different, ", ")));
}

void run_info(Cli &cli)
{
    cli.document.set_result(false);
    const ExchangeReport report = run_exchange(cli, OPERATION_GET_BACKUP_INFO);
    Table table{{{"key", ""}, {"date", ""}}};
    for (const CloudRecord &record : report.records) {
        const std::string key = record.key.value_or("");
        const std::string date = record.date.value_or("");
        const auto milliseconds = parse_date(date);
        table.rows.push_back(
            {{key, "record " + key}, {milliseconds ? Json(*milliseconds) : Json(date), format_date(date)}});
    }
    cli.document.set("records", table);
    throw_failure(report);
    cli.document.set_result(true);
}
