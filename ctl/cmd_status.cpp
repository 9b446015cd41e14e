#include <algorithm>
#include <functional>

#include "backups.h"
#include "commands.h"
#include "files.h"
#include "history.h"
#include "ime_backup_trusted_folder.h"
#include "paths.h"
#include "setting.h"
#include "shared_names.h"

namespace fs = std::filesystem;

/// The result of one check.
struct Finding {
    std::string found;
    std::string advice{};  ///< how to mend a fault; empty if there is none
    bool is_needed = true; ///< for a backup
};

/// Returns the obstacle to a backup in this place, if there is one.
static std::optional<Obstacle> find_obstacle(SettingPlace place)
{
    Device &device = open_device();
    DeviceState state; // other places are left out, so that they can't fail here
    for (const SettingRow &row : ALL_SETTINGS)
        if (row.place == place)
            state[index_of(row)] = device.read_one(row);
    for (const Obstacle &obstacle : plan_backup(state, std::bind_front(&Device::refuses, &device)).obstacles)
        if (obstacle.row.place == place)
            return obstacle;
    return std::nullopt;
}

static Finding report_obstacle(const Obstacle &obstacle)
{
    return {obstacle.reason,
            std::string("Set it again with: ime-backupctl settings set ") + obstacle.row.member + " VALUE"};
}

static Finding check_scim()
{
    Device &device = open_device();
    try {
        device.require_writable(first_of(SettingForm::integer_switch));
        if (const auto obstacle = find_obstacle(SettingPlace::configuration))
            return report_obstacle(*obstacle);
        return {"the SCIM daemon answers (SCIM_SOCKET_ADDRESS, " + device.daemon_address() + ")"};
    } catch (const DaemonError &error) {
        return {error.what(), HINT_SCIM};
    }
}

static Finding check_keyboard()
{
    const SettingRow &keyboard = first_of(SettingForm::identifier);
    try {
        if (const auto obstacle = find_obstacle(keyboard.place))
            return {obstacle->reason, HINT_KEYBOARD};
        return {format_value(keyboard, open_device().read_one(keyboard))};
    } catch (const PlatformError &) {
        return {"unknown without the SCIM daemon", "Start the SCIM daemon"};
    }
}

static Finding check_exchange_files()
{
    try {
        for (const char *name : {EXCHANGE_LOCK, SERVICE_LOG})
            require_writable_file(state_root() / name);
        require_writable_history();
        require_replaceable(host_path(IME_BACKUP_BACKUP_FILE));
    } catch (const PlatformError &error) {
        return {error.what(), "Move that file or folder away, or set IME_BACKUP_HOST_DIR to another folder"};
    }
    return {"in " + state_root().string()};
}

static Finding check_settings_store()
{
    const fs::path folder = state_root();
    if (!is_usable_folder(folder))
        return {"can't write in " + folder.string(),
                "Set IME_BACKUP_HOST_DIR to a folder that you can write in"};
    const SettingRow &row = find_setting(MEMBER_HANDWRITING);
    try {
        open_device().require_writable(row);
        if (const auto obstacle = find_obstacle(row.place))
            return report_obstacle(*obstacle);
        return {"in " + folder.string()};
    } catch (const PlatformError &error) {
        return {error.what(),
                "If the disk is full, free space. If the store is damaged, move it away: a new one is made"};
    }
}

static Finding check_cloud_store()
{
    try {
        const auto store = open_store();
        const CloudStore::Listing listing = store->list();
        store->require_writable();
        if (!listing.exists)
            return {store->location() + " does not exist yet: the first backup makes it"};
        const size_t count = listing.numbers.size();
        return {store->location() + ", " + std::to_string(count) + (count == 1 ? " backup" : " backups")};
    } catch (const PlatformError &error) {
        return {error.what(), "Set IME_BACKUP_CLOUD_STORE to a place that you can write in"};
    } catch (const HostError &error) {
        return {error.what(), "Mend the fault and try again, or set IME_BACKUP_CLOUD_STORE to another place"};
    }
}

/// Returns the newest entry that meets a condition, or null.
template <class Condition>
static const HistoryEntry *find_newest(const std::vector<HistoryEntry> &entries, Condition condition)
{
    const auto entry = std::find_if(entries.rbegin(), entries.rend(), condition);
    return entry == entries.rend() ? nullptr : &*entry;
}

static Finding check_last_exchange()
{
    try {
        if (is_exchange_running())
            return {"running now"};
    } catch (const PlatformError &error) {
        return {error.what(), "Move it away"};
    }
    try {
        const std::vector<HistoryEntry> entries = read_history();
        const HistoryEntry *const open = find_newest(entries, [](const HistoryEntry &entry) {
            return !entry.succeeded && !entry.changed.empty() && !entry.is_undone;
        });
        if (open != nullptr)
            return {describe(*open) + " was interrupted",
                    "Revert its changes with: ime-backupctl undo " + std::to_string(open->number), false};
        const HistoryEntry *const last = find_newest(entries, [](const HistoryEntry &entry) {
            return entry.operation == "backup" || entry.operation == "restore" || entry.operation == "info";
        });
        if (last == nullptr)
            return {"none yet"};
        if (last->succeeded == true || last->is_undone)
            return {describe(*last) + (last->is_undone ? " was undone" : " succeeded")};
        return {describe(*last) + " on " + format_date(std::to_string(last->time)) + ": " +
                    (last->succeeded ? last->reason : "interrupted"),
                "See " + (state_root() / SERVICE_LOG).string(), false};
    } catch (const HostError &error) {
        return {error.what(), "Move the history away", false};
    }
}

void run_status(Cli &cli)
{
    const struct {
        const char *what;
        const char *name;
        Finding (*check)();
    } checks[] = {{"scim", "SCIM daemon", check_scim},
                  {"keyboard", "active keyboard", check_keyboard},
                  {"settings_store", "settings store", check_settings_store},
                  {"exchange", "exchange files", check_exchange_files},
                  {"cloud_store", "cloud store", check_cloud_store},
                  {"last_exchange", "last exchange", check_last_exchange}};

    Table table{{{"what", ""}, {"fine", ""}, {"found", FOR_SCRIPTS}, {"do", FOR_SCRIPTS}, {FOR_PEOPLE, ""}},
                {},
                Remarks::plain};
    for (const auto &[what, name, check] : checks) {
        const Finding finding = check();
        const bool is_fine = finding.advice.empty();
        const std::string remark = finding.found + (is_fine ? "" : ". " + finding.advice);
        table.rows.push_back({{what, name},
                              {is_fine, is_fine             ? "fine"
                                        : finding.is_needed ? "NOT FINE"
                                                            : "failed"},
                              finding.found,
                              finding.advice,
                              remark});
        if (!is_fine && finding.is_needed)
            cli.status = EXIT_NO_PLATFORM;
    }
    cli.document.set(table);
}
