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
        std::optional<FileLock> lock; // one that isn't there yet is not made
        if (fs::exists(fs::symlink_status(lock_file, ignored)))
            highest = highest_given(lock.emplace(take_turn()), known);
        require_creatable(file(number_after(highest)), std::string(BLOCK_SIZE, ' '));
    }

    BackupNumber add(const std::string &content) override
    {
        make_private_folder(folder);
        const FileLock lock = take_turn();
        const BackupNumber number = number_after(highest_given(lock, list().numbers));
        create_file_durably(file(number), content);
        // As long as the backup is there its name tells the number, too. Here it takes up its space: a backup
        // can then be deleted when the disk is full.
        remember(lock, number);
        return number;
    }

    void remove(const Choose &choose) override
    {
        const FileLock lock = take_turn();
        const std::vector<BackupNumber> known = list().numbers;
        const std::vector<BackupNumber> going = choose(known);
        // Where the newest stays its name tells the number, and nothing need be written on a disk that is
        // full.
        const bool newest_goes = !known.empty() && std::ranges::count(going, known.back()) > 0;
        if (newest_goes &&
            (!remember(lock, highest_given(lock, known)) || fdatasync(lock.opened().get()) != 0))
            throw HostError("can't note in " + lock_file.string() + " which numbers were given");
        for (const BackupNumber number : going)
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
    /// @throws PlatformError when the lock's file is not the store's own, which must not be written to
    FileLock take_turn() const
    {
        const auto require = [this](bool is_right, const char *what) {
            if (!is_right)
                throw PlatformError("can't use " + lock_file.string() + ": " + what +
                                    "; move it away, and a new one is made");
        };
        struct stat status = {};
        require(lstat(lock_file.c_str(), &status) != 0 || S_ISREG(status.st_mode), "it is not a regular file");
        FileLock lock(lock_file);
        lock.acquire("what holds " + lock_file.string());
        require(fstat(lock.opened().get(), &status) == 0 && status.st_nlink <= 1, "it has another name, too");
        // After a power cut, it may hold as many NUL bytes.
        require(status.st_size <= BLOCK_SIZE &&
                    read_from(lock.opened(), 0).find_first_not_of({"0123456789\n\0", 12}) ==
                        std::string::npos,
                "it holds what no store writes");
        return lock;
    }

    /// The highest number given, as the lock's file remembers it or a backup's name tells it.
    BackupNumber highest_given(const FileLock &lock, const std::vector<BackupNumber> &known) const
    {
        const std::string content = read_from(lock.opened(), 0);
        const auto remembered = parse_number(content.substr(0, content.find('\n')));
        return std::max(remembered ? *remembered : highest_known(), known.empty() ? 0 : known.back());
    }

    static bool remember(const FileLock &lock, BackupNumber number)
    {
        return write_at(lock.opened(), 0, std::to_string(number) + "\n");
    }

    static constexpr int BLOCK_SIZE = 4096;

    const fs::path folder;
    /// Locked while a backup is added or deleted: several state roots may share a store. It holds the highest
    /// number given, so that no other backup gets the number of one that was deleted.
    const fs::path lock_file = folder / ".lock";
};

} // namespace

std::unique_ptr<CloudStore> make_folder_store(const fs::path &folder)
{
    return std::make_unique<FolderStore>(folder);
}
