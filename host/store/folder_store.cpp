#include <algorithm>

#include <sys/stat.h>

#include "cloud_store.h"
#include "files.h"

namespace fs = std::filesystem;

namespace
{

class FolderStore : public CloudStore
{
public:
    explicit FolderStore(const fs::path &path) : CloudStore(path.string()), folder(path) {}

    void require_writable() const override
    {
        if (!is_usable_folder(folder))
            throw PlatformError("can't write in " + folder.string());
        std::error_code ignored;
        if (!fs::exists(folder, ignored))
            return;
        const std::vector<BackupNumber> known = list().numbers;
        BackupNumber highest = known.empty() ? 0 : known.back();
        std::optional<FileLock> lock; // only if the lock file exists: this function must not make it
        if (fs::exists(fs::symlink_status(lock_file, ignored)))
            highest = highest_used(lock.emplace(lock_store()), known);
        require_creatable(file(number_after(highest)), std::string(BLOCK_SIZE, ' '));
    }

    BackupNumber add(const std::string &content) override
    {
        make_private_folder(folder);
        const FileLock lock = lock_store();
        const BackupNumber number = number_after(highest_used(lock, list().numbers));
        create_file_durably(file(number), content);
        // While the backup exists, its name has the number, too. Writing the number now reserves the space
        // for it, so that a backup can be deleted when the disk is full.
        write_highest(lock, number);
        return number;
    }

    void remove(const Choose &choose) override
    {
        const FileLock lock = lock_store();
        const std::vector<BackupNumber> known = list().numbers;
        const std::vector<BackupNumber> chosen = choose(known);
        // If the newest backup stays, its name keeps the number, and nothing is written: the disk may be
        // full.
        const bool deletes_newest = !known.empty() && std::ranges::count(chosen, known.back()) > 0;
        if (deletes_newest &&
            (!write_highest(lock, highest_used(lock, known)) || fdatasync(lock.opened().get()) != 0))
            throw HostError("can't write the highest number of a backup to " + lock_file.string());
        for (const BackupNumber number : chosen)
            remove_file_durably(file(number));
    }

    std::optional<std::uintmax_t> size(BackupNumber number) const override
    {
        std::error_code error;
        const std::uintmax_t size = fs::file_size(file(number), error);
        return error ? std::nullopt : std::optional(size);
    }

    bool contains(const fs::path &path) const override
    {
        std::error_code error;
        const fs::path here = fs::weakly_canonical(folder, error);
        return !error && fs::weakly_canonical(path, error).parent_path() == here;
    }

private:
    std::optional<std::vector<std::string>> list_names() const override
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

    std::string read_content(BackupNumber number) const override
    {
        try {
            return read_file(file(number), MAX_RECORD_FILE_SIZE);
        } catch (const UnreadableError &) {
            std::error_code ignored;
            if (fs::symlink_status(file(number), ignored).type() == fs::file_type::not_found)
                throw NoBackupError("there is no backup " + std::to_string(number));
            throw;
        } catch (const HostError &error) {
            throw DamagedError(error.what());
        }
    }

    fs::path file(BackupNumber number) const { return folder / file_name(number); }

    /// Locks the store.
    ///
    /// @throws PlatformError when the lock file may be another program's, and so must not be written
    FileLock lock_store() const
    {
        const auto require = [this](bool is_right, const char *what) {
            if (!is_right)
                throw PlatformError("can't use " + lock_file.string() + ": " + what +
                                    "; move it away, and a new one is made");
        };
        struct stat status = {};
        require(lstat(lock_file.c_str(), &status) != 0 || S_ISREG(status.st_mode),
                "it is not a regular file");
        FileLock lock(lock_file);
        lock.acquire("the process that holds " + lock_file.string());
        require(fstat(lock.opened().get(), &status) == 0 && status.st_nlink <= 1, "it has another hard link");
        // After a power cut, the content may be NUL bytes.
        require(status.st_size <= BLOCK_SIZE &&
                    read_from(lock.opened(), 0).find_first_not_of({"0123456789\n\0", 12}) ==
                        std::string::npos,
                "its content is not a backup number");
        return lock;
    }

    /// Returns the highest number that was ever used, from the lock file and the names of backups.
    BackupNumber highest_used(const FileLock &lock, const std::vector<BackupNumber> &known) const
    {
        const std::string content = read_from(lock.opened(), 0);
        const auto noted = parse_number(content.substr(0, content.find('\n')));
        return std::max(noted ? *noted : highest_known(), known.empty() ? 0 : known.back());
    }

    static bool write_highest(const FileLock &lock, BackupNumber number)
    {
        return write_at(lock.opened(), 0, std::to_string(number) + "\n");
    }

    static constexpr int BLOCK_SIZE = 4096;

    const fs::path folder;
    /// Locked while a backup is added or deleted, since several state roots may share a store. The file has
    /// the highest number used, so that the number of a deleted backup is not used again.
    const fs::path lock_file = folder / ".lock";
};

} // namespace

std::unique_ptr<CloudStore> make_folder_store(const fs::path &folder)
{
    return std::make_unique<FolderStore>(folder);
}
