#pragma once

#include <filesystem>

/// A lock between processes. One that dies lets go of it.
class FileLock
{
public:
    explicit FileLock(std::filesystem::path lock_file) : file(std::move(lock_file)) {}
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    ~FileLock();

    /// Waits until no other process holds the lock.
    ///
    /// @throws StateError when the file can't be locked
    void acquire();

    /// @return false when another process holds the lock
    /// @throws StateError when the file can't be locked
    bool try_acquire();

private:
    bool lock(int operation);

    std::filesystem::path file;
    int descriptor = -1;
};
