#include "last_restore.h"

#include <algorithm>
#include <filesystem>

#include "contact.h"
#include "files.h"
#include "paths.h"
#include "report.h"

namespace fs = std::filesystem;

static constexpr size_t MAX_SIZE = size_t{64} << 20;

static fs::path account_file()
{
    return state_root() / LAST_RESTORE;
}

/// Adds a change of a restore to those that came before it.
static void add(std::vector<ChangedSetting> &changes, const Change &change)
{
    const auto row =
        std::find_if(std::begin(ALL_SETTINGS), std::end(ALL_SETTINGS), [&](const SettingRow &known) {
            return known.place == change.place && known.key == change.key;
        });
    if (row == std::end(ALL_SETTINGS) || change.outcome == Change::Outcome::refused)
        return;
    const auto earlier = std::find_if(changes.begin(), changes.end(), [&](const ChangedSetting &known) {
        return known.row.member == row->member;
    });
    if (earlier == changes.end())
        changes.push_back({*row, change.before, change.after});
    else
        earlier->after = change.after;
}

std::optional<LastRestore> read_last_restore()
{
    const fs::path file = account_file();
    std::error_code ignored;
    if (!fs::exists(fs::symlink_status(file, ignored)))
        return std::nullopt;
    try {
        const ExchangeReport report = decode_report(read_file(file, MAX_SIZE));
        if (report.settings.empty())
            throw HostError("it is cut short");
        LastRestore last{report.backup, report.result, {}, report.settings};
        for (const Change &change : report.changes)
            add(last.changes, change);
        return last;
    } catch (const HostError &error) {
        throw HostError("what the last restore changed can't be read from " + file.string() + ": " +
                        error.what() + "; move it away once you have looked at it");
    }
}

void forget_last_restore()
{
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(account_file(), ignored)))
        remove_file_durably(account_file());
}
