#include <algorithm>
#include <memory>

#include "cli.h"
#include "format.h"
#include "ime_backup_operations.h"
#include "setting.h"
#include "text.h"

static void show_records(const CloudRecords &records)
{
    const bool all_restored =
        std::none_of(records.begin(), records.end(), [](const CloudRecord &record) { return record.failed; });
    if (records.size() == 1 && all_restored)
        return;
    for (const CloudRecord &record : records)
        printf("record %s  %s\n", escaped(record.key.value_or("")).c_str(),
               record.failed ? "failed" : "applied");
}

static void show_outcomes(const std::vector<SettingOutcome> &outcomes)
{
    std::vector<std::vector<std::string>> rows = {{"setting", "before", "after", ""}};
    for (const SettingOutcome &outcome : outcomes)
        rows.push_back({outcome.row.member, format_value(outcome.row, outcome.before),
                        format_value(outcome.row, outcome.after), outcome.why});
    print_table(rows);
}

/// Says "restored" of what is.
static void show_result(BackupNumber backup, const std::vector<SettingOutcome> &outcomes)
{
    std::string different;
    for (const SettingOutcome &outcome : outcomes)
        if (!outcome.why.empty())
            different += (different.empty() ? ", but for " : ", ") + std::string(outcome.row.member);
    printf("backup %s  restored%s\n", std::to_string(backup).c_str(), different.c_str());
}

static int restore(const ServiceOptions &options, const std::string &id)
{
    const std::string backup = std::to_string(CloudStore().find(id));
    const Outcome outcome = run_exchange(options, OPERATION_RESTORE, backup);
    show_records(outcome.report.records);
    const CloudRecords &records = outcome.report.records;
    if (std::all_of(records.begin(), records.end(), [](const CloudRecord &record) { return record.failed; }))
        return outcome.status; // nothing was applied that settings could be compared with
    const std::vector<SettingOutcome> outcomes = tell_outcomes(outcome.report);
    show_outcomes(outcomes);
    if (outcome.status == EXIT_DONE)
        show_result(outcome.report.backup, outcomes);
    return outcome.status;
}

void add_restore(Cli &cli)
{
    auto *command = cli.app.add_subcommand("restore", "Restore the newest backup, or the one named");
    const auto id = std::make_shared<std::string>();
    add_backup_id(*command, *id);
    command->callback([&cli, id] { cli.status = restore(cli.service, *id); });
}
