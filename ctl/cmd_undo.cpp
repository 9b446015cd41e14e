#include <algorithm>

#include "backups.h"
#include "commands.h"
#include "files.h"
#include "last_restore.h"
#include "paths.h"
#include "setting.h"
#include "text.h"

/// Adds what is no longer set after a restore that did not succeed. SCIM's daemon does not write its file
/// whole or not at all: when it is killed then, settings are lost that the restore had not come to.
static void add_lost(LastRestore &last)
{
    if (last.result == ExchangeReport::Result::succeeded)
        return;
    for (const SettingReport &setting : last.settings) {
        const SettingRow &row = find_setting(setting.member);
        const bool is_known =
            std::any_of(last.changes.begin(), last.changes.end(),
                        [&](const ChangedSetting &change) { return change.row.member == setting.member; });
        if (!is_known && setting.before && !open_device().read_one(row))
            last.changes.push_back({row, setting.before, std::nullopt});
    }
}

static void require_writable(const std::vector<ChangedSetting> &changes)
{
    for (const ChangedSetting &change : changes)
        open_device().require_writable(change.row);
}

/// Puts a setting back, also where it seems to be as it was: an undo that was killed may have left it so in
/// the daemon's memory alone.
///
/// @return why it is not as it was, or an empty text
static std::string put_back(const ChangedSetting &restored, std::vector<ChangedSetting> &undone)
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
        undone.push_back({restored.row, now, after});
    return after == restored.before ? "" : std::string(restored.row.member) + " (" + reason + ")";
}

/// @return what could not be put back
static std::vector<std::string> put_back(const std::vector<ChangedSetting> &restored,
                                         std::vector<ChangedSetting> &undone)
{
    std::vector<std::string> failures;
    for (const ChangedSetting &change : restored)
        if (const std::string failure = put_back(change, undone); !failure.empty())
            failures.push_back(failure);
    return failures;
}

void run_undo(Cli &cli)
{
    cli.document.set_result(false);
    cli.document.set("settings", table_of({}));
    const FileLock turn = wait_for_turn(cli.service.timeout_seconds, false);

    LastRestore last = read_last_restore().value_or(LastRestore());
    add_lost(last);
    require_writable(last.changes);
    std::vector<ChangedSetting> undone;
    std::vector<std::string> failures;
    try {
        failures = put_back(last.changes, undone);
    } catch (...) {
        cli.document.set("settings", table_of(undone));
        throw;
    }
    cli.document.set("settings", table_of(undone));
    if (!failures.empty())
        throw HostError("not put back: " + join(failures, ", "));
    forget_last_restore();
    cli.document.set_result(true);
    cli.document.say(last.changes.empty()
                         ? "there is nothing to undo"
                         : "what the restore of " + name_of(last.backup) + " changed is as it was");
}
