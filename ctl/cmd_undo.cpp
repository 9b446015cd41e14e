#include <algorithm>
#include <chrono>
#include <unistd.h>

#include "backups.h"
#include "files.h"
#include "last_restore.h"
#include "paths.h"
#include "setting.h"
#include "text.h"

/// Waits until no exchange is under way.
static void take_turn(FileLock &turn, double timeout_seconds)
{
    static constexpr useconds_t RETRY_US = 20'000;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_seconds);
    while (!turn.try_acquire()) {
        if (std::chrono::steady_clock::now() > end)
            throw TimeoutError("another exchange did not end in time");
        usleep(RETRY_US);
    }
}

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
        if (!is_known && setting.before && !access_to(row).read(row))
            last.changes.push_back({row, setting.before, std::nullopt});
    }
}

static void require_writable(const std::vector<ChangedSetting> &changes)
{
    for (const ChangedSetting &change : changes)
        access_to(change.row).require_writable();
}

/// Puts a setting back, also where it seems to be as it was: an undo that was killed may have left it so in
/// the daemon's memory alone.
///
/// @return why it is not as it was, or an empty text
static std::string put_back(const ChangedSetting &restored, std::vector<ChangedSetting> &undone)
{
    const DeviceAccess &access = access_to(restored.row);
    const DeviceValue now = access.read(restored.row);
    std::string reason = "something else changed it meanwhile";
    try {
        access.write(restored.row, restored.before);
    } catch (const ValueError &error) {
        reason = error.what();
    }
    const DeviceValue after = access.read(restored.row);
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

static void undo(Cli &cli)
{
    cli.document.set_result(false);
    cli.document.set("settings", table_of({}));
    FileLock turn(state_root() / EXCHANGE_LOCK);
    take_turn(turn, cli.service.timeout_seconds);

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

void add_undo(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"undo", GROUP_BACKUPS, "Put back what the last restore changed",
                              "Each setting that the last restore changed gets the value that it had before, "
                              "or none if it had none. "
                              "This goes for a restore that was interrupted, too, and it can be done once.",
                              "ime-backupctl undo"});
    command->callback([&cli] { undo(cli); });
}
