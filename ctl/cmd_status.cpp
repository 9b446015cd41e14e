#include <unistd.h>

#include "backups.h"
#include "commands.h"
#include "contact.h"
#include "files.h"
#include "paths.h"
#include "setting.h"

namespace fs = std::filesystem;

enum class State {
    fine,
    worth_knowing, ///< not fine, and no backup is kept from
    missing        ///< what a backup needs
};

/// What was found of one thing.
struct Finding {
    State state;
    std::string found;
    std::string advice{}; ///< if it isn't fine
};

static Finding look_at_scim(const Cli &)
{
    Device &device = open_device();
    try {
        device.require_writable(first_of(SettingForm::integer_switch));
        return {State::fine,
                "the SCIM daemon answers (SCIM_SOCKET_ADDRESS, " + device.daemon_address() + ")"};
    } catch (const DaemonError &error) {
        return {State::missing, error.what(), HINT_SCIM};
    }
}

static Finding look_at_keyboard(const Cli &)
{
    const SettingRow &keyboard = first_of(SettingForm::identifier);
    try {
        const DeviceValue value = open_device().read_one(keyboard);
        if (!value)
            return {State::missing, "no input method is active", HINT_KEYBOARD};
        return {State::fine, format_value(keyboard, value)};
    } catch (const PlatformError &) {
        return {State::missing, "not known without the SCIM daemon", "Start the SCIM daemon"};
    }
}

static Finding look_at_store(const Cli &)
{
    const fs::path folder = state_root();
    if (!is_usable_folder(folder))
        return {State::missing, "can't write in " + folder.string(),
                "Set IME_BACKUP_HOST_DIR to a folder that you can write in"};
    const SettingRow &row = find_setting(MEMBER_HANDWRITING);
    try {
        open_device().require_writable(row);
        for (const SettingRow &setting : ALL_SETTINGS)
            if (setting.place == row.place)
                open_device().read_one(setting);
        return {State::fine, "in " + folder.string()};
    } catch (const PlatformError &error) {
        return {State::missing, error.what(),
                "Free space on the disk if it is full. A store that is damaged can be moved away: a new one "
                "is made"};
    }
}

static Finding look_at_cloud(const Cli &cli)
{
    try {
        const auto store = open_store(cli.timeout_seconds);
        store->require_writable();
        const CloudStore::Listing listing = store->list();
        if (!listing.is_there)
            return {State::fine, store->location() + " isn't there yet: a backup makes it"};
        const size_t count = listing.numbers.size();
        return {State::fine,
                store->location() + ", " + std::to_string(count) + (count == 1 ? " backup" : " backups")};
    } catch (const PlatformError &error) {
        return {State::missing, error.what(), "Set IME_BACKUP_CLOUD_STORE to a place that you can write in"};
    } catch (const HostError &error) {
        return {State::missing, error.what(), "Try again once the remote answers"};
    }
}

static ExchangeReport read_last_exchange()
{
    const fs::path file = state_root() / LAST_REPORT;
    std::error_code ignored;
    if (!fs::exists(file, ignored))
        return {};
    try {
        return decode_report(read_file(file, MAX_RECORD_FILE_SIZE));
    } catch (const HostError &error) {
        throw HostError(file.string() + " can't be read: " + error.what());
    }
}

static Finding look_at_last_exchange(const Cli &)
{
    using Result = ExchangeReport::Result;
    const fs::path lock = state_root() / EXCHANGE_LOCK;
    std::error_code ignored;
    try {
        FileLock turn(lock);
        if (fs::exists(lock, ignored) && !turn.try_acquire())
            return {State::fine, "one is under way"};
    } catch (const PlatformError &error) {
        return {State::missing, error.what(), "Move it away"};
    }
    try {
        const ExchangeReport restore = read_last_restore();
        if (!restore.settings.empty() && restore.result == Result::undecided)
            return {State::worth_knowing, "the restore of " + name_of(restore.backup) + " was interrupted",
                    "Put back what it changed with: ime-backupctl undo; or restore again"};
        const ExchangeReport last = read_last_exchange();
        if (last.operation.empty())
            return {State::fine, "none yet"};
        const std::string what = last.operation + (last.backup == 0 ? "" : " of " + name_of(last.backup));
        if (last.result == Result::succeeded)
            return {State::fine, what + " succeeded"};
        return {State::worth_knowing, what + ": " + last.reason,
                "See " + (state_root() / SERVICE_LOG).string()};
    } catch (const HostError &error) {
        return {State::worth_knowing, error.what(), "The next exchange makes it anew"};
    }
}

void run_status(Cli &cli)
{
    const struct {
        const char *what;
        const char *name;
        Finding (*look)(const Cli &);
    } things[] = {{"scim", "SCIM daemon", look_at_scim},
                  {"keyboard", "active keyboard", look_at_keyboard},
                  {"settings_store", "settings store", look_at_store},
                  {"cloud_store", "cloud store", look_at_cloud},
                  {"last_exchange", "last exchange", look_at_last_exchange}};

    Table table{{{"what", ""}, {"fine", ""}, {"found", FOR_SCRIPTS}, {"do", FOR_SCRIPTS}, {FOR_PEOPLE, ""}},
                {},
                Remarks::plain};
    for (const auto &thing : things) {
        const Finding finding = thing.look(cli);
        const bool is_fine = finding.state == State::fine;
        table.rows.push_back({{thing.what, thing.name},
                              {is_fine, is_fine ? "fine" : "NOT FINE"},
                              finding.found,
                              finding.advice,
                              finding.found + (finding.advice.empty() ? "" : ". " + finding.advice)});
        if (finding.state == State::missing)
            cli.status = EXIT_NO_PLATFORM;
    }
    cli.document.set(table);
}
