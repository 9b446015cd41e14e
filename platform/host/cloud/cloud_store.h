#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
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

/// A backup is there, but is none that could be used.
struct DamagedError : HostError {
    using HostError::HostError;
};

struct Backup {
    std::string content; ///< of its record file
    CloudRecords records;
};

/// The host's cloud: a folder of backups. Each is a record file that is never changed, under a number of its
/// own, which no other backup gets once it is deleted. A folder that isn't there holds none.
/// Every function throws PlatformError when the folder can't be used.
class CloudStore
{
public:
    /// The folder named by $IME_BACKUP_CLOUD_STORE, else one below the state root.
    CloudStore();

    const std::filesystem::path &location() const { return folder; }
    bool exists() const;
    /// Whether its place was chosen by $IME_BACKUP_CLOUD_STORE.
    bool is_chosen() const { return chosen; }

    struct Listing {
        std::vector<BackupNumber> numbers; ///< newest last
        std::vector<std::string>
            left_out; ///< files that are named as backups are, but have no number that can be
    };

    Listing list() const;

    /// The number that a person wrote, or that of the newest backup when it is empty.
    ///
    /// @throws NoBackupError
    BackupNumber find(const std::string &text) const;

    /// @throws NoBackupError
    /// @throws DamagedError when it can't be read, is no record file or was changed since it was written
    Backup read(BackupNumber number) const;

    /// Throws when there is something that no backup can be added to. Nothing is made.
    void require_writable() const;

    /// Adds a backup, whole or not at all, and durably. Makes the folder if there is none.
    ///
    /// @return its number
    /// @throws HostError when it can't be written
    BackupNumber add(const std::string &content);

    /// Chooses some of the backups that there are.
    using Choose = std::function<std::vector<BackupNumber>(const std::vector<BackupNumber> &known)>;

    /// Deletes the backups that are chosen, in this order, and durably. Meanwhile no other process adds or
    /// deletes one.
    ///
    /// @throws HostError when one can't be deleted; those before it are
    void remove(const Choose &choose);

    /// The size of a backup's file, if it has one.
    std::optional<std::uintmax_t> size(BackupNumber number) const;

private:
    std::filesystem::path file(BackupNumber number) const;

    bool chosen;
    std::filesystem::path folder;
};
