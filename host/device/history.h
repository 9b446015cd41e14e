/** @file
 * The history of this device: a journal of all exchanges and changes of settings. It shows people what was
 * done, and makes it possible to undo changes. A process that writes an entry must hold #EXCHANGE_LOCK.
 */
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "errors.h"
#include "files.h"
#include "setting_value.h"

using EntryNumber = std::uint64_t;

/// Device values by setting (SettingRow::member).
using NamedValues = std::map<std::string, DeviceValue>;

NamedValues name_values(const DeviceState &device);

struct HistoryEntry {
    EntryNumber number = 0;
    std::int64_t time = 0;         ///< of the start, in milliseconds since 1970
    std::string operation;         ///< such as "backup", "restore", "info", "undo", "settings set"
    std::uint64_t backup = 0;      ///< the backup that was made or restored; 0 if there is none
    std::string store;             ///< the location of the backup's store
    EntryNumber undoes = 0;        ///< the entry that an undo reverts; else 0
    NamedValues before;            ///< the old values; empty without planned changes
    NamedValues planned;           ///< the new values of the settings to change
    std::optional<bool> succeeded; ///< nothing while the operation runs, or if it was interrupted
    std::string reason;
    std::vector<std::string> changed; ///< the settings that have changed or may have
    std::string fault;                ///< why the entry can't be read; other members may then be missing
    bool is_undone = false;
};

/// Returns the newest entries, and older entries that can be undone or have a fault. The oldest comes first.
///
/// @throws HostError when the journal can't be read
std::vector<HistoryEntry> read_history();

/// Returns the newest restore or change of settings that changed something and is not undone; null if there
/// is none.
///
/// @throws HostError when a newer entry can't be read
const HistoryEntry *find_undoable(const std::vector<HistoryEntry> &entries);
const HistoryEntry *find_undoable(std::vector<HistoryEntry> &&) = delete;

/// Returns the highest number of a backup in this store that the history mentions; 0 if there is none.
std::uint64_t highest_backup(const std::string &store);

/// Throws when no entry can be written. Writes nothing.
void require_writable_history();

/// Writes one entry. Without a call of finish(), the entry stays interrupted.
class HistoryWriter
{
public:
    /// Begins an entry. Does not throw if it can't be written: plan() does.
    ///
    /// @param operation see HistoryEntry::operation
    /// @param undoes    see HistoryEntry::undoes
    explicit HistoryWriter(const std::string &operation, EntryNumber undoes = 0);

    void set_backup(std::uint64_t backup, const std::string &store);

    /// Adds planned changes to the entry, durably. Call this before the changes are made.
    ///
    /// @throws PlatformError when the entry can't be written; the changes must then not be made
    void plan(const NamedValues &before, const NamedValues &planned);

    bool has_planned(const std::string &member) const { return entry.planned.contains(member); }
    const NamedValues &planned() const { return entry.planned; }

    /// Completes the entry, durably if changes were planned. Reports a failure on standard error.
    ///
    /// @param changed see HistoryEntry::changed
    void finish(bool succeeded, const std::string &reason, const std::vector<std::string> &changed);

private:
    void open();
    bool find_end();
    void tidy();
    void append(nlohmann::json line);

    HistoryEntry entry;
    Descriptor file;
    off_t size = 0;      ///< of the complete lines in the file
    std::string failure; ///< why nothing can be written
};
