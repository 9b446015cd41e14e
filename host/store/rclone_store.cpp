#include "rclone_store.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include <glib.h>

#include "files.h"
#include "text.h"

namespace fs = std::filesystem;

/// Behind the name of a backup's file and a random word: it is being uploaded, or its upload was cut off.
static constexpr char UPLOAD_SUFFIX[] = ".new";
/// Behind the name of a backup's file: the backup was the newest when it was deleted, and its number was
/// given.
static constexpr char NOTE_SUFFIX[] = ".gone";
static constexpr char NOTE[] = "The number in this file's name is not given to another backup.\n";
/// No upload takes as long, by any remote's clock.
static constexpr char ABANDONED_AGE[] = "2d";

static constexpr int MAX_TRIES = 8;
static constexpr gint32 PAUSE_US = 100'000;

RcloneStore::RcloneStore(const std::string &location, std::string rclone_target,
                         std::optional<double> timeout_seconds)
    : CloudStore(location), target(std::move(rclone_target)), rclone(timeout_seconds)
{
}

// What rclone does.

std::string RcloneStore::file(const std::string &name) const
{
    return target + (target.ends_with(':') || target.ends_with('/') ? "" : "/") + name;
}

void RcloneStore::require_done(const Rclone::Result &result, const std::string &remark) const
{
    if (result.status != 0)
        throw HostError("the cloud store " + location() + " can't be used: " + result.reason + remark);
}

std::optional<std::vector<std::string>> RcloneStore::list_names() const
{
    // With the folders, whose names end in a slash: they, too, are in the way of a file.
    const Rclone::Result result = rclone.run({"lsf", "--", target});
    if (result.status == Rclone::NO_SUCH_FOLDER)
        return std::nullopt;
    require_done(result);
    std::vector<std::string> names;
    std::istringstream lines(result.output);
    for (std::string name; std::getline(lines, name);)
        names.push_back(name);
    return names;
}

std::vector<std::string> RcloneStore::names_there() const
{
    return list_names().value_or(std::vector<std::string>());
}

bool RcloneStore::is_there(const std::string &name) const
{
    const std::vector<std::string> names = names_there();
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The content of a file, or the beginning of one that is too large for a backup. There may be none of a
/// file that isn't there: a remote without folders takes it for a folder with nothing in it.
Rclone::Result RcloneStore::get(const std::string &name) const
{
    return rclone.run({"cat", "--count", std::to_string(MAX_RECORD_FILE_SIZE + 1), "--", file(name)});
}

void RcloneStore::put(const std::string &name, const std::string &content) const
{
    // Told the size, rclone keeps no copy of its own meanwhile, which it would leave behind when killed.
    require_done(rclone.run({"rcat", "--size", std::to_string(content.size()), "--", file(name)}, content));
}

// Reading.

namespace
{

/// A folder for what rclone downloads.
class Downloads
{
public:
    Downloads()
    {
        g_autoptr(GError) error = nullptr;
        g_autofree gchar *made = g_dir_make_tmp("ime-backup-XXXXXX", &error);
        if (made == nullptr)
            throw HostError(error->message);
        folder = made;
    }
    Downloads(const Downloads &) = delete;
    Downloads &operator=(const Downloads &) = delete;
    ~Downloads()
    {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    const fs::path &path() const { return folder; }

private:
    fs::path folder;
};

} // namespace

void RcloneStore::fetch(const std::vector<BackupNumber> &numbers) const
{
    if (numbers.empty())
        return;
    const Downloads downloads;
    std::string names;
    for (const BackupNumber number : numbers)
        names += "/" + file_name(number) + "\n";
    // What is left out here, be it that it can't be read, is read alone, which tells why.
    const Rclone::Result copied =
        rclone.run({"copy", "--include-from", "-", "--max-size", std::to_string(MAX_RECORD_FILE_SIZE) + "B",
                    "--", target, downloads.path()},
                   names);
    if (copied.status < 0) // killed in the middle of a file
        require_done(copied);
    std::error_code ignored;
    for (const BackupNumber number : numbers)
        if (const fs::path copy = downloads.path() / file_name(number); fs::exists(copy, ignored))
            fetched[number] = read_file(copy, MAX_RECORD_FILE_SIZE);
}

std::string RcloneStore::read_content(BackupNumber number) const
{
    if (const auto known = fetched.find(number); known != fetched.end())
        return known->second;
    const Rclone::Result result = get(file_name(number));
    if (result.output.size() > MAX_RECORD_FILE_SIZE)
        throw DamagedError("it is larger than " + std::to_string(MAX_RECORD_FILE_SIZE) + " bytes");
    const bool is_read = result.status == 0 && !result.output.empty();
    if (!is_read && !is_there(file_name(number)))
        throw NoBackupError("there is no backup " + std::to_string(number));
    if (result.status != 0) // and the rest of the store can be used
        throw UnreadableError("it can't be read: " + result.reason);
    return result.output;
}

std::optional<std::uintmax_t> RcloneStore::size(BackupNumber number) const
{
    const auto known = fetched.find(number);
    return known == fetched.end() ? std::nullopt : std::optional(known->second.size());
}

// Adding.

BackupNumber RcloneStore::highest_taken(const std::vector<std::string> &names)
{
    BackupNumber highest = 0;
    for (const std::string &name : names)
        highest = std::max(highest, number_taken_by(name).value_or(0));
    return highest;
}

BackupNumber RcloneStore::add(const std::string &content)
{
    for (int tries = 0; tries < MAX_TRIES; tries++) {
        const std::vector<std::string> names = names_there();
        discard_abandoned(names);
        const BackupNumber number = number_after(highest_taken(names));
        if (try_to_add(number, content))
            return number;
        // Those who got in each other's way need not do so again.
        rclone.pause(g_random_int_range(0, PAUSE_US << tries));
    }
    throw HostError("others keep adding backups to " + location() + " at the same time");
}

/// @return false when another process may take the number
bool RcloneStore::try_to_add(BackupNumber number, const std::string &content) const
{
    g_autofree gchar *word = g_strdup_printf("%08x%08x", g_random_int(), g_random_int());
    const std::string upload = file_name(number) + "." + word + UPLOAD_SUFFIX;
    bool is_added = false;
    try {
        put(upload, content);
        is_added = give_name(upload, number, content);
    } catch (const HostError &) {
        discard(upload);
        throw;
    }
    if (!is_added)
        discard(upload);
    return is_added;
}

/// Makes a backup of an upload that is whole, if no other file has its number. Of two processes that upload
/// under one number, at least one sees the other's file here. What a remote shows late is noticed by the
/// content.
bool RcloneStore::give_name(const std::string &upload, BackupNumber number, const std::string &content) const
{
    const std::string changed = "the cloud store " + location() + " does not hand back what was put into it";
    const Rclone::Result uploaded = get(upload);
    require_done(uploaded);
    if (uploaded.output != content)
        throw HostError(changed);
    for (const std::string &name : names_there())
        if (name != upload && number_taken_by(name) == number)
            return false;

    const std::string name = file_name(number);
    const Rclone::Result moved = rclone.run({"moveto", "--ignore-existing", "--", file(upload), file(name)});
    const Rclone::Result named = get(name);
    if (named.status == 0 && named.output == content) // be it that the answer to the move was lost
        return true;
    const std::string doubt = "; the backup may have been stored nevertheless";
    require_done(moved, doubt);
    require_done(named, doubt);
    if (!is_there(upload))
        throw HostError(changed);
    return false;
}

/// Does what it can: what is left over is no backup.
void RcloneStore::discard(const std::string &name) const
{
    try {
        rclone.run({"deletefile", "--", file(name)});
    } catch (const HostError &) { // the reason why it was given up is told
    }
}

/// Uploads of processes that were killed would keep their numbers, and their space, for ever.
void RcloneStore::discard_abandoned(const std::vector<std::string> &names) const
{
    if (std::any_of(names.begin(), names.end(),
                    [](const std::string &name) { return name.ends_with(UPLOAD_SUFFIX); }))
        rclone.run({"delete", "--max-depth=1", "--min-age", ABANDONED_AGE, "--include",
                    std::string("/backup-{{[0-9]+}}.json.{{[0-9a-f]{16}}}") + UPLOAD_SUFFIX, "--", target});
}

// Deleting.

void RcloneStore::remove(const Choose &choose)
{
    const std::vector<std::string> names = names_there();
    const std::vector<BackupNumber> known = parse_listing(names).numbers;
    const std::vector<BackupNumber> going = choose(known);
    if (going.empty())
        return;
    std::vector<std::string> files;
    std::transform(going.begin(), going.end(), std::back_inserter(files), file_name);
    if (std::find(going.begin(), going.end(), known.back()) != going.end()) {
        const std::string note = file_name(highest_taken(names)) + NOTE_SUFFIX;
        put(note, NOTE);
        std::copy_if(names.begin(), names.end(), std::back_inserter(files), [&](const std::string &name) {
            return number_taken_by(name) && name.ends_with(NOTE_SUFFIX) && name != note;
        });
    }
    require_done(rclone.run({"delete", "--files-from-raw", "-", "--", target}, join(files, "\n") + "\n"));
}
