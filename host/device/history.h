/** @file
 * The history of this device: a journal of each exchange and each change of settings, so that changes can be
 * undone and people see what was done. Whoever writes an entry holds the turn (#EXCHANGE_LOCK).
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

/// Device values, by the members of their settings.
using NamedValues = std::map<std::string, DeviceValue>;

NamedValues name_values(const DeviceState &device);

struct HistoryEntry {
    EntryNumber number = 0;
    std::int64_t time = 0;         ///< when it began, in milliseconds since 1970
    std::string what;              ///< "backup", "restore", "info", "undo", or such as "settings set"
    std::uint64_t backup = 0;      ///< that was made or restored; 0 if there is none
    std::string store;             ///< the location of the backup's store
    EntryNumber undoes = 0;        ///< the entry that an undo takes back; else 0
    NamedValues before;            ///< the old values; empty if no change was planned
    NamedValues planned;           ///< the settings that were to be changed
    std::optional<bool> succeeded; ///< nothing while it has no end: it is under way, or was interrupted
    std::string reason;
    std::vector<std::string> changed; ///< the settings that are, or may be, other than before
    std::string fault;                ///< why the entry can't be read; then the others may be missing
    bool is_undone = false;
};

/// The newest entries, and of older ones those that can be undone; oldest first.
///
/// @throws HostError when the journal can't be read
std::vector<HistoryEntry> read_history();

/// The newest restore or change of settings that changed something and is not undone; null if there is none.
///
/// @throws HostError when an entry is in the way that can't be read
const HistoryEntry *find_undoable(const std::vector<HistoryEntry> &entries);
const HistoryEntry *find_undoable(std::vector<HistoryEntry> &&) = delete;

/// The highest number of a backup in this store that the history knows; 0 if it knows none.
std::uint64_t highest_backup(const std::string &store);

/// Throws when no entry can be written. Nothing is made.
void require_writable_history();

/// An entry that is being written. An object that goes without finish() leaves an interrupted entry.
class HistoryWriter
{
public:
    /// Begins an entry. That it could not be written shows when something is to be changed.
    ///
    /// @param what     see HistoryEntry::what
    /// @param undoes   see HistoryEntry::undoes
    explicit HistoryWriter(const std::string &what, EntryNumber undoes = 0);

    void set_backup(std::uint64_t backup, const std::string &store);

    /// Notes durably what is about to be changed, in addition to what was noted before.
    ///
    /// @throws PlatformError when it can't be noted, and so must not be changed
    void plan(const NamedValues &before, const NamedValues &planned);

    bool has_planned(const std::string &member) const { return entry.planned.contains(member); }
    const NamedValues &planned() const { return entry.planned; }

    /// Completes the entry, durably if something was to be changed.
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
    off_t size = 0;      ///< of whole lines
    std::string failure; ///< why nothing can be written
};
