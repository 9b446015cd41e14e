#include "folder_store.h"

#include <algorithm>
#include <unistd.h>

#include "files.h"

namespace fs = std::filesystem;

/// Locked while a backup is added or deleted: several state roots may share a store. It holds the highest
/// number given, lest one whose backup was deleted is given again.
static constexpr char LOCK_NAME[] = ".lock";

FolderStore::FolderStore(const fs::path &path) : CloudStore(path.string()), folder(path) {}

fs::path FolderStore::file(BackupNumber number) const
{
    return folder / file_name(number);
}

std::optional<std::vector<std::string>> FolderStore::list_names() const
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        names.push_back(entry->path().filename());
    if (error == std::errc::no_such_file_or_directory)
        return std::nullopt;
    if (error)
        throw PlatformError("can't list the folder " + folder.string() + ": " + error.message());
    return names;
}

std::string FolderStore::read_content(BackupNumber number) const
{
    try {
        return read_file(file(number), MAX_RECORD_FILE_SIZE);
    } catch (const HostError &error) {
        std::error_code ignored;
        if (fs::symlink_status(file(number), ignored).type() == fs::file_type::not_found)
            throw NoBackupError("there is no backup " + std::to_string(number));
        throw DamagedError(error.what());
    }
}

/// The highest number given, as the lock's file remembers it.
static std::string remembered_digits(const FileLock &lock)
{
    const std::string content = read_from(lock.opened(), 0);
    return content.substr(0, content.find('\n'));
}

static bool remember_number(const FileLock &lock, BackupNumber number)
{
    return write_at(lock.opened(), 0, std::to_string(number) + "\n");
}

void FolderStore::require_writable() const
{
    if (!is_usable_folder(folder))
        throw PlatformError("can't write in " + folder.string());
}

BackupNumber FolderStore::add(const std::string &content)
{
    make_private_folder(folder);
    FileLock lock(folder / LOCK_NAME);
    lock.acquire();
    const std::vector<BackupNumber> known = list().numbers;
    const BackupNumber remembered = parse_number(remembered_digits(lock)).value_or(0);
    const BackupNumber number = number_after(std::max(remembered, known.empty() ? 0 : known.back()));
    create_file_durably(file(number), content);
    // As long as the backup is there its name tells the number, too. Here it takes up its space: a backup can
    // then be deleted when the disk is full.
    remember_number(lock, number);
    return number;
}

void FolderStore::remove(const Choose &choose)
{
    FileLock lock(folder / LOCK_NAME);
    lock.acquire();
    const std::vector<BackupNumber> known = list().numbers;
    const std::vector<BackupNumber> going = choose(known);
    // Where the newest stays its name tells the number, and nothing need be written on a disk that is full.
    const bool newest_goes =
        !going.empty() && std::find(going.begin(), going.end(), known.back()) != going.end();
    const BackupNumber remembered = parse_number(remembered_digits(lock)).value_or(0);
    if (newest_goes &&
        (!remember_number(lock, std::max(remembered, known.back())) || fdatasync(lock.opened().get()) != 0))
        throw HostError("can't note in " + (folder / LOCK_NAME).string() + " which numbers were given");
    for (const BackupNumber number : going)
        remove_file_durably(file(number));
}

std::optional<std::uintmax_t> FolderStore::size(BackupNumber number) const
{
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file(number), error);
    return error ? std::nullopt : std::optional(size);
}

bool FolderStore::contains(const fs::path &path) const
{
    std::error_code error;
    const fs::path here = fs::weakly_canonical(folder, error);
    return !error && fs::weakly_canonical(path, error).parent_path() == here;
}
