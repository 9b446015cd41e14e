#include <algorithm>

#include "backups.h"
#include "commands.h"
#include "contact.h"
#include "paths.h"
#include "setting.h"
#include "text.h"

struct ChangedSetting {
    SettingRow row;
    DeviceValue before;
    DeviceValue after;
};

/// What a restore changed: from what each setting was before to what it may have become.
static std::vector<ChangedSetting> changes_of(const ExchangeReport &restore)
{
    std::vector<ChangedSetting> changes;
    const auto find = [&changes](const SettingRow &row) {
        return std::find_if(changes.begin(), changes.end(),
                            [&row](const ChangedSetting &known) { return known.row.member == row.member; });
    };
    for (const Change &change : restore.changes)
        for (const SettingRow &row : ALL_SETTINGS) {
            if (row.place != change.place || row.key != change.key ||
                change.outcome == Change::Outcome::refused)
                continue;
            if (const auto earlier = find(row); earlier != changes.end())
                earlier->after = change.after;
            else
                changes.push_back({row, change.before, change.after});
        }
    if (restore.result == ExchangeReport::Result::succeeded)
        return changes;
    // SCIM's daemon does not write its file whole or not at all: when it is killed then, settings are lost
    // that the restore had not come to.
    for (const SettingReport &setting : restore.settings) {
        const SettingRow &row = find_setting(setting.member);
        if (find(row) == changes.end() && setting.before && !open_device().read_one(row))
            changes.push_back({row, setting.before, std::nullopt});
    }
    return changes;
}

/// Puts a setting back, also where it seems to be as it was: an undo that was killed may have left it so in
/// the daemon's memory alone.
///
/// @return why it is not as it was, or an empty text
static std::string put_back(const ChangedSetting &restored, Table &undone)
{
    Device &device = open_device();
    const DeviceValue now = device.read_one(restored.row);
    std::string reason = "something else changed it meanwhile";
    try {
        device.write(restored.row, restored.before);
    } catch (const ValueError &error) {
        reason = error.what();
    }
    const DeviceValue after = device.read_one(restored.row);
    if (after != now)
        undone.rows.push_back(describe_change(restored.row, now, after));
    return after == restored.before ? "" : std::string(restored.row.member) + " (" + reason + ")";
}

void run_undo(Cli &cli)
{
    cli.document.set_result(false);
    Table undone = make_changes_table();
    cli.document.set("settings", undone);
    const FileLock turn = wait_for_turn(cli.timeout_seconds, false);

    const ExchangeReport restore = read_last_restore();
    const std::vector<ChangedSetting> changes = changes_of(restore);
    for (const ChangedSetting &change : changes)
        open_device().require_writable(change.row);
    std::vector<std::string> failures;
    for (const ChangedSetting &change : changes) {
        if (const std::string failure = put_back(change, undone); !failure.empty())
            failures.push_back(failure);
        cli.document.set("settings", undone);
    }
    if (!failures.empty())
        throw HostError("not put back: " + join(failures, ", "));
    if (!restore.settings.empty())
        remove_file_durably(state_root() / LAST_RESTORE);
    cli.document.set_result(true);
    cli.document.say(changes.empty()
                         ? "there is nothing to undo"
                         : "what the restore of " + name_of(restore.backup) + " changed is as it was");
}
