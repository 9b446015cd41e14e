#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "errors.h"
#include "record_file.h"

/// The number of a backup, in the order in which they were made.
using BackupNumber = std::uint64_t;

/// There is no such backup.
struct NoBackupError : HostError {
    using HostError::HostError;
};

/// A backup was read, and is none that could be used. Of one that can't be read, UnreadableError tells.
struct DamagedError : HostError {
    using HostError::HostError;
};

struct Backup {
    std::string content; ///< of its record file
    CloudRecords records;
};

/// The snapshot that a restore of these records leaves in force: that of the last one.
///
/// @throws DamagedError when a record holds none
std::string snapshot_in(const CloudRecords &records);

/// Stands for the number of the newest backup.
inline constexpr char LATEST[] = "latest";

/// Yields the highest number of a backup that is known to have been given at a location, or 0. It is asked
/// where the place may have lost count.
using HighestKnown = BackupNumber (*)(const std::string &location);

/// The host's cloud: a place with backups in it. Each is a record file that is never changed, under a number
/// of its own, which no other backup gets once it is deleted. A place that isn't there holds none.
/// Every function throws PlatformError when a folder can't be used, and HostError when a remote store does
/// not do what is asked of it.
class CloudStore
{
public:
    CloudStore(const CloudStore &) = delete;
    CloudStore &operator=(const CloudStore &) = delete;
    virtual ~CloudStore() = default;

    /// Its place, for a person: without passwords.
    const std::string &location() const { return place; }
    /// A location, or a text with one in it, for a person.
    static std::string without_secrets(const std::string &text);
    /// Whether its place was chosen by $IME_BACKUP_CLOUD_STORE.
    static bool is_chosen();

    struct Listing {
        bool is_there = false;
        std::vector<BackupNumber> numbers; ///< newest last
        std::vector<std::string> left_out; ///< files named as backups are, but with no number that can be
    };

    Listing list() const;
    bool exists() const { return list().is_there; }

    /// The number that a person wrote, or that of the newest backup when it is empty or #LATEST.
    ///
    /// @throws NoBackupError
    BackupNumber find(const std::string &text) const { return find(text, list().numbers); }
    /// The same, of the backups that are known already.
    BackupNumber find(const std::string &text, const std::vector<BackupNumber> &known) const;

    /// @throws NoBackupError
    /// @throws DamagedError when it is no record file or was changed since it was written
    /// @throws UnreadableError, whose message begins with "can't be read"
    Backup read(BackupNumber number) const;

    /// Says that these will be read, so that a remote store hands them over together.
    virtual void fetch(const std::vector<BackupNumber> & /*numbers*/) const {}

    /// Goes the way of a backup that is added, as far as it goes without one, and throws where that fails.
    virtual void require_writable() const = 0;

    /// Adds a backup, whole or not at all, and durably. Makes the place if it isn't there.
    ///
    /// @return its number
    /// @throws HostError when it can't be written
    virtual BackupNumber add(const std::string &content) = 0;

    /// Chooses some of the backups that there are.
    using Choose = std::function<std::vector<BackupNumber>(const std::vector<BackupNumber> &known)>;

    /// Deletes the backups that are chosen, and durably. From a folder they go in this order, and meanwhile
    /// no other process adds or deletes one. Whether they are gone, a listing tells.
    ///
    /// @throws HostError when one can't be deleted; others may be
    virtual void remove(const Choose &choose) = 0;

    /// The size of a backup's file, if it is known.
    virtual std::optional<std::uintmax_t> size(BackupNumber number) const = 0;

    /// Whether a file of this path, which may not exist yet, lies among those of the store.
    virtual bool contains(const std::filesystem::path & /*file*/) const { return false; }

protected:
    explicit CloudStore(const std::string &location) : place(without_secrets(location)) {}

    static std::string file_name(BackupNumber number);
    static std::optional<BackupNumber> parse_number(const std::string &digits);
    /// The number that a file takes up: one that is named as a backup's is, whatever may follow.
    static std::optional<BackupNumber> number_taken_by(const std::string &name);
    static Listing parse_listing(const std::vector<std::string> &names);

    /// The highest number that others know to have been given here, if they know one.
    BackupNumber highest_known() const { return ask_for_highest == nullptr ? 0 : ask_for_highest(place); }

    /// The number for another backup.
    BackupNumber number_after(BackupNumber highest) const;

private:
    /// The names of the files in the place, or nothing when it isn't there.
    virtual std::optional<std::vector<std::string>> list_names() const = 0;
    /// The content of a backup's file.
    ///
    /// @throws NoBackupError
    /// @throws DamagedError when it is larger than a backup, or no file
    /// @throws UnreadableError
    virtual std::string read_content(BackupNumber number) const = 0;

    friend std::unique_ptr<CloudStore> open_store(HighestKnown highest_known);

    const std::string place;
    HighestKnown ask_for_highest = nullptr;
};

/// Backups in a folder.
std::unique_ptr<CloudStore> make_folder_store(const std::filesystem::path &folder);

/// Backups in a remote place.
///
/// @param target the place, as rclone has it
std::unique_ptr<CloudStore> make_rclone_store(const std::string &location, const std::string &target);

/// The store named by $IME_BACKUP_CLOUD_STORE, else a folder below the state root.
///
/// @throws PlatformError when it names what can be no store
std::unique_ptr<CloudStore> open_store(HighestKnown highest_known = nullptr);
