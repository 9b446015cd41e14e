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

/// Opens a file with the flags of open(). Only its owner can read one that is made. Anything but a regular
/// file, such as a FIFO, is refused at once.
///
/// @throws UnreadableError when it can't be opened
/// @throws PlatformError when it is no regular file
Descriptor open_file(const std::filesystem::path &file, int flags);

/// @throws UnreadableError
/// @throws HostError when it is no regular file or is larger than `max_size`
std::string read_file(const std::filesystem::path &file, size_t max_size);

/// What an open file, or a pipe, holds from where it stands.
///
/// @throws UnreadableError
/// @throws HostError when it is larger than `max_size`
std::string read_to_end(const Descriptor &file, size_t max_size);

/// What an open file holds from `offset` on, as far as it can be read.
std::string read_from(const Descriptor &file, off_t offset);

/// Replaces a file, whole or not at all. Its writers take turns: one that is killed leaves at most one
/// temporary file behind, which the next replaces.
///
/// @throws HostError when it can't be written; the old file is then still there
void replace_file(const std::filesystem::path &file, const std::string &content);

/// The same, and it outlives a power cut once this returns.
void replace_file_durably(const std::filesystem::path &file, const std::string &content);

/// Has what was made, renamed and removed in a folder outlive a power cut.
///
/// @return false when it may not
bool sync_folder(const std::filesystem::path &folder);

/// Makes a file that was not there, whole or not at all. It outlives a power cut once this returns.
///
/// @throws HostError when it can't be written or is there already
void create_file_durably(const std::filesystem::path &file, const std::string &content);

/// Throws as create_file_durably() does where that can't write a file. None is made.
void require_creatable(const std::filesystem::path &file, const std::string &content);

/// Writes into an open file from `offset` on.
///
/// @return false when not all of it is written
bool write_at(const Descriptor &file, off_t offset, const std::string &content);

/// Has a file that another wrote outlive a power cut, and its name, too.
///
/// @return false when it can't be synced
bool sync_file(const std::filesystem::path &file);

/// @throws HostError when it can't be removed, or may come back after a power cut
void remove_file_durably(const std::filesystem::path &file);

/// Makes a folder, and those above it that are missing; only their owner can enter what is made.
///
/// @throws PlatformError when it can't be made or nothing can be written in it
void make_private_folder(const std::filesystem::path &folder);

/// Throws PlatformError when a file can't be opened to be written, or made. Nothing is made.
void require_writable_file(const std::filesystem::path &file);

/// Throws PlatformError when replace_file() has something in its way. Nothing is made.
void require_replaceable(const std::filesystem::path &file);

/// Whether a folder can be written in, or could be made.
bool is_usable_folder(const std::filesystem::path &folder);

/// A lock between processes. One that dies lets go of it. Each function throws PlatformError when the file
/// can't be locked; those that wait for others throw as wait_for_another() does.
class FileLock
{
public:
    explicit FileLock(std::filesystem::path lock_file) : file(std::move(lock_file)) {}

    /// Waits until no other process holds the lock.
    ///
    /// @param who holds it meanwhile, for a person
    void acquire(const std::string &who = "another process");

    /// @return false when another process holds the lock
    bool try_acquire() { return lock(LOCK_EX | LOCK_NB); }

    /// Shares the lock with other processes that share it, and waits until none holds it for itself.
    bool share();

    /// The file, once it was locked.
    const Descriptor &opened() const { return descriptor; }

private:
    bool lock(int operation);

    std::filesystem::path file;
    Descriptor descriptor;
};
