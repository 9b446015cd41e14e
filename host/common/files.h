#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include <sys/file.h>
#include <unistd.h>

/// An open file, closed with the object.
class Descriptor
{
public:
    explicit Descriptor(int descriptor = -1) : number(descriptor) {}
    Descriptor(Descriptor &&other) noexcept : number(std::exchange(other.number, -1)) {}
    Descriptor &operator=(Descriptor other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }
    ~Descriptor()
    {
        if (number >= 0)
            close(number);
    }

    int get() const { return number; }
    explicit operator bool() const { return number >= 0; }

private:
    int number;
};

/// Opens a regular file with the flags of open(). Never blocks, not even on a FIFO. Only its owner can read a
/// file that this creates.
///
/// @throws UnreadableError when the file can't be opened
/// @throws PlatformError when it is not a regular file
Descriptor open_file(const std::filesystem::path &file, int flags);

/// @throws UnreadableError when the file can't be opened or read
/// @throws HostError when it is not a regular file or is larger than `max_size`
std::string read_file(const std::filesystem::path &file, size_t max_size);

/// Reads an open file or a pipe from its current position to the end.
///
/// @throws UnreadableError when it can't be read
/// @throws HostError when the rest is larger than `max_size`
std::string read_to_end(const Descriptor &file, size_t max_size);

/// Reads an open file from `offset` to the end, or to the first error.
std::string read_from(const Descriptor &file, off_t offset);

/// Replaces a file atomically. Its writers must take turns. A writer that is killed leaves at most one
/// temporary file, which the next writer replaces.
///
/// @throws HostError when the file can't be written; the old file is unchanged
void replace_file(const std::filesystem::path &file, const std::string &content);

/// Replaces a file as replace_file() does. The new file survives a power cut once this returns.
void replace_file_durably(const std::filesystem::path &file, const std::string &content);

/// Makes sure that files created, renamed and removed in a folder stay so after a power cut.
///
/// @return false on failure
bool sync_folder(const std::filesystem::path &folder);

/// Creates a file atomically. It survives a power cut once this returns.
///
/// @throws HostError when the file can't be written or exists already
void create_file_durably(const std::filesystem::path &file, const std::string &content);

/// Throws HostError if create_file_durably() can't write this file, and leaves no file behind.
void require_creatable(const std::filesystem::path &file, const std::string &content);

/// Writes into an open file from `offset` on.
///
/// @return false when not all of `content` is written
bool write_at(const Descriptor &file, off_t offset, const std::string &content);

/// Makes sure that a file that another process wrote survives a power cut, under its name.
///
/// @return false when the file or its folder can't be synced
bool sync_file(const std::filesystem::path &file);

/// Removes a file. It stays removed after a power cut.
///
/// @throws HostError when the file can't be removed, or may come back after a power cut
void remove_file_durably(const std::filesystem::path &file);

/// Makes a folder and its missing parents. Only the owner can enter the new folders.
///
/// @throws PlatformError when the folder can't be made or is not writable
void make_private_folder(const std::filesystem::path &folder);

/// Throws PlatformError if a file can't be opened for writing, or created. Creates nothing.
void require_writable_file(const std::filesystem::path &file);

/// Throws PlatformError if replace_file() would fail on this path. Creates nothing.
void require_replaceable(const std::filesystem::path &file);

/// True if the folder is writable, or does not exist and could be made.
bool is_usable_folder(const std::filesystem::path &folder);

/// A lock between processes, released when its holder dies. Each function throws PlatformError when the file
/// can't be locked. Functions that wait for other processes throw as wait_for_another() does.
class FileLock
{
public:
    explicit FileLock(std::filesystem::path lock_file) : file(std::move(lock_file)) {}

    /// Waits until no other process holds the lock.
    ///
    /// @param who the holder, for messages
    void acquire(const std::string &who = "another process");

    /// @return false when another process holds the lock
    bool try_acquire() { return lock(LOCK_EX | LOCK_NB); }

    /// Waits until no process holds the lock exclusively, and takes a shared lock. Always returns true.
    bool share();

    /// The lock file; open once a lock was tried.
    const Descriptor &opened() const { return descriptor; }

private:
    bool lock(int operation);

    std::filesystem::path file;
    Descriptor descriptor;
};
