// The commands that have the service take part in an exchange.

#include <algorithm>
#include <csignal>

#include "backups.h"
#include "commands.h"
#include "orvanta_cloud_operations.h"
#include "setting.h"
#include "text.h"

/// The newest backup, if it holds what a backup of this device would. What can't be told now, a backup tells.
static std::optional<BackupNumber> find_same(const Cli &cli)
{
    try {
        const auto store = open_store(cli.service.timeout_seconds);
        const std::vector<BackupNumber> known = store->list().numbers;
        if (known.empty())
            return std::nullopt;
        const CloudRecords records = store->read(known.back()).records;
        const FileLock turn = wait_for_turn(cli.service.timeout_seconds, true);
        const BackupPlan plan = plan_backup_of(open_device());
        const bool is_same = plan.obstacles.empty() && records.size() == 1 && records[0].key == RECORD_KEY &&
                             is_same_snapshot(read_snapshot(snapshot_in(records))->values, plan.snapshot);
        return is_same ? std::optional(known.back()) : std::nullopt;
    } catch (const TimeoutError &) {
        throw;
    } catch (const HostError &) {
        return std::nullopt;
    }
}

void run_backup(Cli &cli)
{
    cli.document.set_result(false);
    cli.document.set("backup", Json());
    cli.document.set("stored", Json(false));
    if (const auto same = cli.has("--if-changed") ? find_same(cli) : std::nullopt; same) {
        cli.document.set_result(true);
        cli.document.set("backup", Json(*same));
        cli.document.say(name_of(*same) + " holds the same settings; nothing was stored");
        return;
    }
    const ExchangeReport report = run_exchange(cli.service, cli.log_tail, OPERATION_BACKUP);
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("stored", Json(report.stored));
    throw_failure(report);
    cli.document.set_result(true, report.reason);
    cli.document.say(name_of(report.backup) + "  " + format_date(date_of(report.records)));
    if (!report.reason.empty())
        cli.document.say(report.reason);
}

static bool has_failed(const CloudRecord &record)
{
    return record.failed;
}

static Table table_of(const CloudRecords &records)
{
    Table table{{{"key", ""}, {"failed", ""}}, {}};
    for (const CloudRecord &record : records) {
        const std::string key = record.key.value_or("");
        table.rows.push_back({{key, "record " + key}, {record.failed, record.failed ? "failed" : "applied"}});
    }
    table.is_for_people = records.size() > 1 || std::any_of(records.begin(), records.end(), has_failed);
    return table;
}

static Table table_of(const std::vector<SettingReport> &settings)
{
    Table table{
        {{"name", "setting"}, {"before", "before"}, {"wanted", FOR_SCRIPTS}, {"after", "after"}, {"why", ""}},
        {}};
    table.remarks = Remarks::warnings;
    for (const SettingReport &setting : settings) {
        const SettingRow &row = find_setting(setting.member);
        table.rows.push_back({setting.member, cell_of(row, setting.before),
                              cell_of(row, device_value(row, setting.wanted)), cell_of(row, setting.after),
                              setting.why});
    }
    return table;
}

static void show_restore(Cli &cli, const ExchangeReport &report)
{
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("dry_run", Json(cli.has("--dry-run")));
    cli.document.set("records", table_of(report.records));
    Table settings = table_of(report.settings);
    // Where no record was applied, there is nothing that they could be compared with.
    settings.is_for_people = !std::all_of(report.records.begin(), report.records.end(), has_failed);
    cli.document.set("settings", settings);
}

/// What a restore would come to.
static ExchangeReport plan_restore_of(Cli &cli)
{
    const auto store = open_store(cli.service.timeout_seconds);
    ExchangeReport report;
    report.backup = store->find(cli.argument());
    show_restore(cli, report);
    const CloudRecords records = read_for_restore(*store, report.backup).records;
    std::vector<std::optional<std::string>> values;
    for (const CloudRecord &record : records)
        values.push_back(record.value);

    const FileLock turn = wait_for_turn(cli.service.timeout_seconds, true);
    Device &device = open_device();
    for (const SettingRow &row : SETTINGS)
        device.require_writable(row);
    const auto refuses = [&device](const SettingRow &row, const DeviceValue &value) {
        return device.refuses(row, value);
    };
    return report_planned(plan_restore(values, device.read_all(), refuses), report.backup, records);
}

void run_restore(Cli &cli)
{
    cli.document.set_result(false);
    show_restore(cli, {});
    const ExchangeReport report =
        cli.has("--dry-run") ? plan_restore_of(cli)
                             : run_exchange(cli.service, cli.log_tail, OPERATION_RESTORE, cli.argument());
    show_restore(cli, report);
    throw_failure(report);

    std::vector<std::string> different; // from what the backup has
    for (const SettingReport &setting : report.settings)
        if (!setting.why.empty() && setting.why != NOT_CHECKED)
            different.push_back(setting.member);
    if (cli.has("--strict") && !(different.empty() && report.reason.empty()))
        cli.status = EXIT_FAILED;
    cli.document.set_result(true, report.reason);
    cli.document.say(name_of(report.backup) + (cli.has("--dry-run") ? "  would be restored" : "  restored") +
                     (different.empty() ? "" : ", but for " + join(different, ", ")));
    if (!report.reason.empty())
        cli.document.say(report.reason);
}

void run_info(Cli &cli)
{
    cli.document.set_result(false);
    const ExchangeReport report = run_exchange(cli.service, cli.log_tail, OPERATION_GET_BACKUP_INFO);
    Table table{{{"key", ""}, {"date", ""}}, {}};
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

/// Traces the command of the same name.
void run_trace(Cli &cli)
{
    const Command &traced = cli.command();
    if (!traced.commands.empty())
        throw UsageError("trace lacks what it is to show: backup, restore or info");
    cli.service.trace = {default_trace_library(), join(cli.values("--fail"), " "), cli.json, cli.quiet};
    // When nobody reads the trace any more, the exchange still ends in order, and what is lost is told.
    std::signal(SIGPIPE, SIG_IGN);
    find_command(PROGRAM, traced.name).run(cli);
}
