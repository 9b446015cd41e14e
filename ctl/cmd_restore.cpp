#include <algorithm>

#include "backups.h"
#include "orvanta_cloud_operations.h"
#include "setting.h"
#include "text.h"

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

static Table table_of(const std::vector<SettingOutcome> &outcomes)
{
    Table table{
        {{"name", "setting"}, {"before", "before"}, {"wanted", FOR_SCRIPTS}, {"after", "after"}, {"why", ""}},
        {}};
    table.remarks = Remarks::warnings;
    for (const SettingOutcome &outcome : outcomes)
        table.rows.push_back({outcome.row.member, cell_of(outcome.row, outcome.before),
                              cell_of(outcome.row, outcome.wanted), cell_of(outcome.row, outcome.after),
                              outcome.why});
    return table;
}

/// The settings that are not as the backup has them.
static std::vector<std::string> find_different(const std::vector<SettingOutcome> &outcomes)
{
    std::vector<std::string> different;
    for (const SettingOutcome &outcome : outcomes)
        if (!outcome.why.empty())
            different.emplace_back(outcome.row.member);
    return different;
}

void restore(Cli &cli, const RestoreOptions &options)
{
    cli.document.set_result(false);
    const Outcome outcome = run_exchange(
        cli.service, {.operation = OPERATION_RESTORE, .backup = options.id, .is_trial = options.is_trial});
    const ExchangeReport &report = outcome.report;
    const std::vector<SettingOutcome> outcomes = tell_outcomes(report);
    const std::vector<std::string> different = find_different(outcomes);
    const bool none_applied = std::all_of(report.records.begin(), report.records.end(), has_failed);

    cli.status =
        outcome.status == EXIT_DONE && options.is_strict && !different.empty() ? EXIT_FAILED : outcome.status;
    cli.document.set_result(outcome.status == EXIT_DONE, report.reason);
    cli.document.set("backup", report.backup == 0 ? Json() : Json(report.backup));
    cli.document.set("dry_run", Json(options.is_trial));
    cli.document.set("records", table_of(report.records));
    Table settings = table_of(outcomes);
    settings.is_for_people = !none_applied; // else there is nothing that they could be compared with
    cli.document.set("settings", settings);
    // Says "restored" of what is.
    if (outcome.status == EXIT_DONE)
        cli.document.say(name_of(report.backup) + (options.is_trial ? "  would be restored" : "  restored") +
                         (different.empty() ? "" : ", but for " + join(different, ", ")));
}

void add_restore(Cli &cli)
{
    auto *command = add_command(
        cli.app,
        {"restore", GROUP_BACKUPS, "Restore the newest backup, or the one named",
         "Has the service apply a backup, and shows what each setting was and has become, and why it is not "
         "as "
         "the backup has it. Only languages that are in downloaded_lang are selected, and handwriting is "
         "switched on only if one of them is in downloaded_with_handwriting_lang. What a restore changed can "
         "be put back with undo.",
         "ime-backupctl restore 3 --dry-run"});
    const auto options = std::make_shared<RestoreOptions>();
    add_argument(*command, LABEL_ID, options->id, "The backup's number");
    command->add_flag("--dry-run", options->is_trial, "Show what a restore would do, and change nothing");
    command->add_flag("--strict", options->is_strict, "Exit with 1 if a setting is not as the backup has it");
    command->callback([&cli, options] { restore(cli, *options); });
}
