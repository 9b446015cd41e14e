#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "errors.h"

/// The number of a backup, in the order in which they were made.
using BackupNumber = std::uint64_t;

/// There is no such backup.
struct NoBackupError : HostError {
    using HostError::HostError;
};

/// The host's cloud: a folder of backups. Each is a record file that is never changed, under a number of its
/// own.
/// Every function throws PlatformError when the folder can't be used.
class CloudStore
{
public:
    /// The folder named by $IME_BACKUP_CLOUD_STORE, else one below the state root.
    CloudStore();

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

    /// The backup's content, as it was added.
    ///
    /// @throws HostError when it can't be read
    std::string read(BackupNumber number) const;

    /// Adds a backup, whole or not at all, and durably.
    ///
    /// @return its number
    /// @throws HostError when it can't be written
    BackupNumber add(const std::string &content);

private:
    std::filesystem::path file(BackupNumber number) const;

    std::filesystem::path folder;
};
