#include <algorithm>

#include "backups.h"
#include "commands.h"
#include "files.h"
#include "history.h"
#include "ime_backup_trusted_folder.h"
#include "paths.h"
#include "setting.h"
#include "shared_names.h"

namespace fs = std::filesystem;

/// What was found of one thing.
struct Finding {
    std::string found;
    std::string advice{};  ///< if it isn't fine
    bool is_needed = true; ///< for a backup
};

static Finding look_at_scim()
{
    Device &device = open_device();
    try {
        device.require_writable(first_of(SettingForm::integer_switch));
        return {"the SCIM daemon answers (SCIM_SOCKET_ADDRESS, " + device.daemon_address() + ")"};
    } catch (const DaemonError &error) {
        return {error.what(), HINT_SCIM};
    }
}

static Finding look_at_keyboard()
{
    const SettingRow &keyboard = first_of(SettingForm::identifier);
    try {
        const DeviceValue value = open_device().read_one(keyboard);
        if (!value)
            return {"no input method is active", HINT_KEYBOARD};
        return {format_value(keyboard, value)};
    } catch (const PlatformError &) {
        return {"not known without the SCIM daemon", "Start the SCIM daemon"};
    }
}

static Finding look_at_exchange()
{
    try {
        for (const char *name : {EXCHANGE_LOCK, SERVICE_LOG})
            require_writable_file(state_root() / name);
        require_writable_history();
        require_replaceable(host_path(IME_BACKUP_BACKUP_FILE));
    } catch (const PlatformError &error) {
        return {error.what(), "Move away what is in the way, or set IME_BACKUP_HOST_DIR to another folder"};
    }
    return {"in " + state_root().string()};
}

static Finding look_at_store()
{
    const fs::path folder = state_root();
    if (!is_usable_folder(folder))
        return {"can't write in " + folder.string(),
                "Set IME_BACKUP_HOST_DIR to a folder that you can write in"};
    const SettingRow &row = find_setting(MEMBER_HANDWRITING);
    try {
        open_device().require_writable(row);
        for (const SettingRow &setting : ALL_SETTINGS)
            if (setting.place == row.place)
                open_device().read_one(setting);
        return {"in " + folder.string()};
    } catch (const PlatformError &error) {
        return {error.what(),
                "Free space on the disk if it is full. A store that is damaged can be moved away: a new one "
                "is made"};
    }
}

static Finding look_at_cloud()
{
    try {
        const auto store = open_store();
        const CloudStore::Listing listing = store->list();
        store->require_writable();
        if (!listing.exists)
            return {store->location() + " isn't there yet: a backup makes it"};
        const size_t count = listing.numbers.size();
        return {store->location() + ", " + std::to_string(count) + (count == 1 ? " backup" : " backups")};
    } catch (const PlatformError &error) {
        return {error.what(), "Set IME_BACKUP_CLOUD_STORE to a place that you can write in"};
    } catch (const HostError &error) {
        return {error.what(),
                "Try again once it can be used, or set IME_BACKUP_CLOUD_STORE to another place"};
    }
}

/// The newest entry that a condition holds for; null if there is none.
template <class Condition>
static const HistoryEntry *find_newest(const std::vector<HistoryEntry> &entries, Condition condition)
{
    const auto entry = std::find_if(entries.rbegin(), entries.rend(), condition);
    return entry == entries.rend() ? nullptr : &*entry;
}

static Finding look_at_last_exchange()
{
    try {
        if (is_turn_taken())
            return {"one is under way"};
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
                    "Put back what it changed with: ime-backupctl undo " + std::to_string(open->number),
                    false};
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
        Finding (*look)();
    } things[] = {{"scim", "SCIM daemon", look_at_scim},
                  {"keyboard", "active keyboard", look_at_keyboard},
                  {"settings_store", "settings store", look_at_store},
                  {"exchange", "exchange files", look_at_exchange},
                  {"cloud_store", "cloud store", look_at_cloud},
                  {"last_exchange", "last exchange", look_at_last_exchange}};

    Table table{{{"what", ""}, {"fine", ""}, {"found", FOR_SCRIPTS}, {"do", FOR_SCRIPTS}, {FOR_PEOPLE, ""}},
                {},
                Remarks::plain};
    for (const auto &thing : things) {
        const Finding finding = thing.look();
        const bool is_fine = finding.advice.empty();
        const std::string remark = finding.found + (is_fine ? "" : ". " + finding.advice);
        table.rows.push_back({{thing.what, thing.name},
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
