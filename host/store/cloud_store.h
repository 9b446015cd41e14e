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

/// The number of a backup. Later backups have higher numbers.
using BackupNumber = std::uint64_t;

/// There is no such backup.
struct NoBackupError : HostError {
    using HostError::HostError;
};

/// A backup was read, but its content is damaged. For a backup that can't be read, see UnreadableError.
struct DamagedError : HostError {
    using HostError::HostError;
};

struct Backup {
    std::string content; ///< the content of the record file
    CloudRecords records;
};

/// Returns the snapshot in the last record, which a restore applies last.
///
/// @throws DamagedError when a record holds no snapshot
std::string snapshot_in(const CloudRecords &records);

/// Names the newest backup, in place of its number.
inline constexpr char LATEST[] = "latest";

/// Returns the highest backup number that is known to have been used at a location, or 0. A store calls this
/// when it may have lost its own record of used numbers.
using HighestKnown = BackupNumber (*)(const std::string &location);

/// The host's cloud: a folder or a remote location with backups. A backup is a record file that never
/// changes. Its number is never used again, not even after the backup is deleted. A location that does not
/// exist counts as empty. Every function throws PlatformError when a folder can't be used, and HostError when
/// a remote store fails.
class CloudStore
{
public:
    CloudStore(const CloudStore &) = delete;
    CloudStore &operator=(const CloudStore &) = delete;
    virtual ~CloudStore() = default;

    /// The location, for people: without passwords.
    const std::string &location() const { return place; }
    /// Masks the passwords in a location, or in a text that contains a location.
    static std::string without_secrets(const std::string &text);
    /// True if $IME_BACKUP_CLOUD_STORE names the location.
    static bool is_chosen();

    struct Listing {
        bool exists = false;               ///< the location exists
        std::vector<BackupNumber> numbers; ///< newest last
        std::vector<std::string> misnamed; ///< files named like a backup, with an invalid number
    };

    Listing list() const;
    bool exists() const { return list().exists; }

    /// Converts a user's text to a backup number. An empty text and #LATEST mean the newest backup.
    ///
    /// @throws NoBackupError when there is no such backup
    BackupNumber find(const std::string &text) const { return find(text, list().numbers); }
    /// Finds a backup as above, in a list of backups that is known already.
    BackupNumber find(const std::string &text, const std::vector<BackupNumber> &known) const;

    /// @throws NoBackupError when there is no such backup
    /// @throws DamagedError when the file is not a record file, or was changed after it was written
    /// @throws UnreadableError with a message that begins with "can't be read"
    Backup read(BackupNumber number) const;

    /// Loads these backups from a remote store with one transfer. Later calls of read() and size() use them.
    virtual void prefetch(const std::vector<BackupNumber> & /*numbers*/) const {}

    /// Tests whether a backup could be added, and throws if not. Adds no backup.
    virtual void require_writable() const = 0;

    /// Adds a backup atomically and durably. Makes the location if it does not exist.
    ///
    /// @return the number of the new backup
    /// @throws HostError when the backup can't be written
    virtual BackupNumber add(const std::string &content) = 0;

    /// Selects backups from those that exist.
    using Choose = std::function<std::vector<BackupNumber>(const std::vector<BackupNumber> &known)>;

    /// Deletes the selected backups durably. A folder store deletes them in order, and locks out other
    /// processes meanwhile. Use list() to check which backups are deleted.
    ///
    /// @throws HostError when a backup can't be deleted; others may then be deleted or not
    virtual void remove(const Choose &choose) = 0;

    /// Returns the size of a backup's file in bytes, if it is known.
    virtual std::optional<std::uintmax_t> size(BackupNumber number) const = 0;

    /// True if the path lies in the store's folder. The file need not exist.
    virtual bool contains(const std::filesystem::path & /*file*/) const { return false; }

protected:
    explicit CloudStore(const std::string &location) : place(without_secrets(location)) {}

    static std::string file_name(BackupNumber number);
    static std::optional<BackupNumber> parse_number(const std::string &digits);
    /// Returns the number in a name that begins with the name of a backup's file. The suffix is ignored.
    static std::optional<BackupNumber> number_taken_by(const std::string &name);
    static Listing parse_listing(const std::vector<std::string> &names);

    /// Returns the highest number that is known to have been used here, see HighestKnown.
    BackupNumber highest_known() const { return get_highest_known == nullptr ? 0 : get_highest_known(place); }

    /// @throws HostError when no higher number is allowed
    BackupNumber number_after(BackupNumber highest) const;

private:
    /// Returns the names of the files in the location; nothing when the location does not exist.
    virtual std::optional<std::vector<std::string>> list_names() const = 0;
    /// Reads a backup's file.
    ///
    /// @throws NoBackupError when there is no such backup
    /// @throws DamagedError when it is not a regular file, or too large for a backup
    /// @throws UnreadableError when it can't be read
    virtual std::string read_content(BackupNumber number) const = 0;

    friend std::unique_ptr<CloudStore> open_store(HighestKnown highest_known);

    const std::string place;
    HighestKnown get_highest_known = nullptr;
};

/// Makes a store for backups in a folder.
std::unique_ptr<CloudStore> make_folder_store(const std::filesystem::path &folder);

/// Makes a store for backups in a remote location.
///
/// @param target the location in rclone's form, REMOTE:PATH
std::unique_ptr<CloudStore> make_rclone_store(const std::string &location, const std::string &target);

/// Makes the store named by $IME_BACKUP_CLOUD_STORE; default: the folder `cloud` in the state root.
///
/// @throws PlatformError when the variable has an invalid location
std::unique_ptr<CloudStore> open_store(HighestKnown highest_known = nullptr);
