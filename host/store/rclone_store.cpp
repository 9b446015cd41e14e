#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>

#include <sys/mman.h>
#include <sys/wait.h>

#include <glib.h>

#include "child.h"
#include "cloud_store.h"
#include "files.h"
#include "process.h"
#include "shared_names.h"
#include "text.h"

namespace fs = std::filesystem;

/// Suffix of an upload that is not complete. The name is the backup's file name, a random word and this
/// suffix.
static constexpr char UPLOAD_SUFFIX[] = ".new";
/// Suffix of a file that marks the highest used number. The file is written when the newest backup is
/// deleted.
static constexpr char NOTE_SUFFIX[] = ".gone";
static constexpr char NOTE[] = "The number in this file's name is not given to another backup.\n";

/// Environment variables with flags for rclone that change what it copies, lists, logs or deletes. Users set
/// them for their own calls of rclone.
static constexpr char UNWANTED_VARIABLES[] =
    "^RCLONE_("
    "(BACKUP_DIR|COMPARE_DEST|COPY_DEST|CPUPROFILE|CUTOFF_MODE|DEFAULT_TIME|DELETE|DUMP|ERROR_ON_NO_TRANSFER"
    "|EXCLUDE|FAST_LIST|FILES_FROM|FILTER|FIX_CASE|HASH_FILTER|IGNORE|IMMUTABLE|INCLUDE|INPLACE|INTERACTIVE"
    "|LIST_CUTOFF|LOG|MAX|MEMPROFILE|METADATA|METRICS|MIN|MODIFY_WINDOW|MULTI_THREAD|NAME_TRANSFORM"
    "|NO_CHECK_DEST|NO_TRAVERSE|NO_UPDATE|ORDER_BY|PARTIAL_SUFFIX|PROGRESS|QUIET|RC|REFRESH_TIMES"
    "|SERVER_SIDE_ACROSS_CONFIGS|STATS|STREAMING_UPLOAD_CUTOFF|SUFFIX|SYSLOG|TRACK_RENAMES|UPDATE"
    "|USE_JSON_LOG|USE_SERVER_MODTIME|VERBOSE|WINDOWS_EVENT_LOG)(_.*)?"
    "|ABSOLUTE|CHECK_FIRST|CHECKSUM|COUNT|CREATE_EMPTY_SRC_DIRS|CSV|DIR_SLASH|DIRS_ONLY|DISCARD|DRY_RUN"
    "|FILES_ONLY|FORMAT|HASH|HEAD|LINKS|OFFSET|RECURSIVE|RMDIRS|SEPARATOR|SIZE|SIZE_ONLY|TAIL|TIME_FORMAT"
    ")\\z";
/// The tracer in $LD_PRELOAD, which must trace the service but not rclone.
static constexpr char TRACER_LIBRARY[] = R"([^ :]*libime-backup-trace\.so[ :]*)";

static constexpr int MAX_TRIES = 8;

/// rclone waits for a server that does not answer at most this long, and at most the time left divided by
/// SERVER_TIMEOUT_DIVISOR. So there is time for a second try and for the report.
static constexpr std::int64_t MAX_SERVER_TIMEOUT_US = 10'000'000;
static constexpr std::int64_t SERVER_TIMEOUT_DIVISOR = 4;

/// The exit status of rclone when there is no such folder.
static constexpr int NO_SUCH_FOLDER = 3;

/// The time at the beginning of a line of rclone's log.
static constexpr char LOG_TIME[] = R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d )";
static constexpr size_t LOG_TIME_SIZE = sizeof "0000/00/00 00:00:00 " - 1;
static constexpr size_t MAX_REASON = 400;
static constexpr char TOO_LATE[] = "rclone did not finish in time";

/// Makes a file in memory. Unlike a pipe, it is complete for its reader even if this process is killed.
static Descriptor make_memory_file(const std::string &content)
{
    Descriptor file(memfd_create("rclone", MFD_CLOEXEC));
    if (!file || !write_at(file, 0, content))
        throw HostError("there is no memory left for rclone's input and output");
    return file;
}

/// Returns the last line of rclone's log, without the time and the level.
static std::string find_reason(const std::string &errors)
{
    std::string reason;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
        if (g_regex_match_simple(LOG_TIME, line.c_str(), G_REGEX_RAW, {}) != FALSE)
            reason = line.substr(LOG_TIME_SIZE);
        else if (reason.empty()) // not a log line; after a log line it would be the rest of a server's answer
            reason = line;
    for (const char *level : {"ERROR : ", "CRITICAL: "})
        if (reason.starts_with(level))
            reason.erase(0, strlen(level));
    return escaped(CloudStore::without_secrets(reason).substr(0, MAX_REASON));
}

namespace
{

/// A remote store of any kind that the program rclone supports. Remote locations can't be locked, and few can
/// create a file only if its name is free. So a backup is uploaded under a unique name, which reserves its
/// number but does not count as a backup. If no other file has this number before or after the upload, the
/// upload is renamed to a backup.
class RcloneStore : public CloudStore
{
public:
    RcloneStore(const std::string &location, std::string rclone_target)
        : CloudStore(location), target(std::move(rclone_target))
    {
        const std::int64_t timeout_us = std::min(
            MAX_SERVER_TIMEOUT_US,
            time_left().value_or(MAX_SERVER_TIMEOUT_US * SERVER_TIMEOUT_DIVISOR) / SERVER_TIMEOUT_DIVISOR);
        const std::string milliseconds = std::to_string(timeout_us / 1000) + "ms";
        // Defaults for variables that are not set: rclone retries a failed request once.
        rclone.environment.merge(Environment{{"RCLONE_RETRIES", "1"},
                                             {"RCLONE_LOW_LEVEL_RETRIES", "2"},
                                             {"RCLONE_CONTIMEOUT", milliseconds},
                                             {"RCLONE_TIMEOUT", milliseconds}});
        g_autoptr(GRegex) unwanted = g_regex_new(UNWANTED_VARIABLES, G_REGEX_RAW, {}, nullptr);
        std::erase_if(rclone.environment, [&](const auto &variable) {
            return variable.first.starts_with("IME_BACKUP_TRACE") ||
                   g_regex_match(unwanted, variable.first.c_str(), {}, nullptr) != FALSE;
        });
        if (const auto preloaded = rclone.environment.find("LD_PRELOAD");
            preloaded != rclone.environment.end()) {
            g_autoptr(GRegex) tracer = g_regex_new(TRACER_LIBRARY, G_REGEX_RAW, {}, nullptr);
            g_autofree gchar *others =
                g_regex_replace_literal(tracer, preloaded->second.c_str(), -1, 0, "", {}, nullptr);
            preloaded->second = others;
        }
    }

    void prefetch(const std::vector<BackupNumber> &numbers) const override
    {
        if (numbers.empty())
            return;
        g_autoptr(GError) error = nullptr;
        const std::unique_ptr<gchar, void (*)(gchar *)> folder(g_dir_make_tmp("ime-backup-XXXXXX", &error),
                                                               [](gchar *made) {
                                                                   std::error_code ignored;
                                                                   fs::remove_all(made, ignored);
                                                                   g_free(made);
                                                               });
        if (folder == nullptr)
            throw HostError(error->message);
        std::string names;
        for (const BackupNumber number : numbers)
            names += "/" + file_name(number) + "\n";
        // A file that can't be copied is read again by read_content(), which reports the reason.
        const Result copied = run({"copy", "--include-from", "-", "--max-size",
                                   std::to_string(MAX_RECORD_FILE_SIZE) + "B", "--", target, folder.get()},
                                  names);
        if (copied.status < 0) // killed: the last copy may be incomplete
            require_done(copied);
        std::error_code ignored;
        for (const BackupNumber number : numbers)
            if (const fs::path copy = fs::path(folder.get()) / file_name(number); fs::exists(copy, ignored))
                prefetched[number] = read_file(copy, MAX_RECORD_FILE_SIZE);
    }

    std::optional<std::uintmax_t> size(BackupNumber number) const override
    {
        const auto known = prefetched.find(number);
        return known == prefetched.end() ? std::nullopt : std::optional(known->second.size());
    }

    /// Uploads a file and deletes it: only a write shows whether a location is writable. The file's number is
    /// taken already, unless the store is empty. This may create the location.
    void require_writable() const override
    {
        const BackupNumber highest = highest_taken(names_there());
        number_after(highest);
        const std::string trial = upload_name(std::max<BackupNumber>(highest, 1));
        upload(trial, NOTE);
        require_done(run({"deletefile", "--", file(trial)}));
    }

    BackupNumber add(const std::string &content) override
    {
        const BackupNumber at_least = highest_known();
        for (int tries = 0; tries < MAX_TRIES; tries++) {
            const std::vector<std::string> names = names_there();
            discard_abandoned(names);
            const BackupNumber number = number_after(std::max(at_least, highest_taken(names)));
            if (try_to_add(number, content))
                return number;
        }
        throw HostError("other processes keep adding backups to " + location() + " at the same time");
    }

    void remove(const Choose &choose) override
    {
        const std::vector<std::string> names = names_there();
        const std::vector<BackupNumber> known = parse_listing(names).numbers;
        const std::vector<BackupNumber> chosen = choose(known);
        if (chosen.empty())
            return;
        std::vector<std::string> files;
        std::ranges::transform(chosen, std::back_inserter(files), file_name);
        if (std::ranges::count(chosen, known.back()) > 0) {
            const std::string note = file_name(highest_taken(names)) + NOTE_SUFFIX;
            put(note, NOTE);
            std::copy_if(names.begin(), names.end(), std::back_inserter(files), [&](const std::string &name) {
                return number_taken_by(name) && name.ends_with(NOTE_SUFFIX) && name != note;
            });
        }
        require_done(run({"delete", "--files-from-raw", "-", "--", target}, join(files, "\n") + "\n"));
    }

private:
    struct Result {
        int status;         ///< exit status, or -1 after a signal
        std::string output; ///< of its standard output
        std::string reason; ///< of a failure, for people
    };

    /// Runs a subcommand of rclone and waits for its end. This blocks the main loop, but termination signals
    /// still end the subcommand.
    ///
    /// @param input its standard input
    /// @throws PlatformError when rclone isn't installed
    /// @throws TimeoutError when the time limit is reached
    /// @throws InterruptedError after a termination signal, which the main loop then gets, too
    Result run(const std::vector<std::string> &arguments, const std::string &input = "") const
    {
        const Descriptor input_file = make_memory_file(input);
        const Descriptor output = make_memory_file("");
        const Descriptor errors = make_memory_file("");
        Child child = rclone;
        child.arguments.insert(child.arguments.end(), arguments.begin(), arguments.end());
        child.files = {
            {STDIN_FILENO, input_file.get()}, {STDOUT_FILENO, output.get()}, {STDERR_FILENO, errors.get()}};
        child.time_limit_us = time_left();
        const ChildResult end = run_child(std::move(child));
        if (end.error == ENOENT)
            throw PlatformError("a remote store needs the program rclone: apt-get install rclone");
        if (end.error != 0)
            throw PlatformError(std::string("can't start rclone: ") + strerror(end.error));
        if (end.stopped == StopReason::interrupted)
            throw InterruptedError("interrupted; the remote store may have carried out the request");
        if (end.stopped == StopReason::timed_out)
            throw TimeoutError(TOO_LATE);

        Result result{WIFEXITED(end.status) ? WEXITSTATUS(end.status) : -1, read_from(output, 0),
                      find_reason(read_from(errors, 0))};
        if (result.reason.empty())
            result.reason = result.status < 0 ? "rclone was ended by a signal" : "rclone gave no reason";
        return result;
    }

    void require_done(const Result &result, const std::string &remark = "") const
    {
        if (result.status != 0)
            throw HostError("the cloud store " + location() + " can't be used: " + result.reason + remark);
    }

    std::optional<std::vector<std::string>> list_names() const override
    {
        // The list includes folders, whose names end in a slash, since a folder also takes a name.
        const Result result = run({"lsf", "--", target});
        if (result.status == NO_SUCH_FOLDER)
            return std::nullopt;
        require_done(result);
        std::vector<std::string> names;
        std::istringstream lines(result.output);
        for (std::string name; std::getline(lines, name);)
            names.push_back(name);
        return names;
    }

    std::vector<std::string> names_there() const { return list_names().value_or(std::vector<std::string>()); }

    bool is_there(const std::string &name) const { return std::ranges::count(names_there(), name) > 0; }

    std::string file(const std::string &name) const
    {
        return target + (target.ends_with(':') || target.ends_with('/') ? "" : "/") + name;
    }

    /// Reads a file, or the beginning of a file that is too large for a backup. For a file that does not
    /// exist, remotes without folders report success and an empty content.
    Result get(const std::string &name) const
    {
        // Without --no-traverse, rclone looks for the file in a listing of the folder. Some servers cut the
        // listing short when another file vanishes meanwhile, and rclone then prints nothing and succeeds.
        return run(
            {"cat", "--no-traverse", "--count", std::to_string(MAX_RECORD_FILE_SIZE + 1), "--", file(name)});
    }

    void put(const std::string &name, const std::string &content) const
    {
        // With the size, rclone makes no temporary copy, which it would leave behind when it is killed.
        require_done(run({"rcat", "--size", std::to_string(content.size()), "--", file(name)}, content));
    }

    std::string read_content(BackupNumber number) const override
    {
        if (const auto known = prefetched.find(number); known != prefetched.end())
            return known->second;
        const Result result = get(file_name(number));
        if (result.output.size() > MAX_RECORD_FILE_SIZE)
            throw DamagedError("it is larger than " + std::to_string(MAX_RECORD_FILE_SIZE) + " bytes");
        const bool is_read = result.status == 0 && !result.output.empty();
        if (!is_read && !is_there(file_name(number)))
            throw NoBackupError("there is no backup " + std::to_string(number));
        if (!is_read) // but the store can be listed
            throw UnreadableError(result.status == 0 ? "rclone returned an empty file" : result.reason);
        return result.output;
    }

    static BackupNumber highest_taken(const std::vector<std::string> &names)
    {
        BackupNumber highest = 0;
        for (const std::string &name : names)
            highest = std::max(highest, number_taken_by(name).value_or(0));
        return highest;
    }

    static std::string upload_name(BackupNumber number)
    {
        g_autofree gchar *word = g_strdup_printf("%08x%08x", g_random_int(), g_random_int());
        return file_name(number) + "." + word + UPLOAD_SUFFIX;
    }

    [[noreturn]] void refuse_changed() const
    {
        throw HostError("the cloud store " + location() + " does not return what was stored in it");
    }

    /// Uploads a file, and checks that the remote store returns the same content.
    void upload(const std::string &name, const std::string &content) const
    {
        try {
            put(name, content);
            const Result uploaded = get(name);
            require_done(uploaded);
            if (uploaded.output != content)
                refuse_changed();
        } catch (const HostError &) {
            discard(name);
            throw;
        }
    }

    /// Uploads a backup, and renames the upload if no other file has its number.
    ///
    /// @return false when another process may use the number
    bool try_to_add(BackupNumber number, const std::string &content) const
    {
        const std::string uploaded = upload_name(number);
        upload(uploaded, content);
        try {
            if (give_name(uploaded, number, content))
                return true;
        } catch (const HostError &) {
            discard(uploaded);
            throw;
        }
        discard(uploaded);
        return false;
    }

    /// True once no other file has the number of an upload. Of several uploads under one number, only the
    /// first by name waits until the others are gone: if all gave way, they could meet again under the next
    /// number.
    bool wins(const std::string &uploaded, BackupNumber number) const
    {
        for (int tries = 0; tries < MAX_TRIES; tries++) {
            bool is_alone = true;
            for (const std::string &name : names_there())
                if (name != uploaded && number_taken_by(name) == number) {
                    if (name < uploaded || !name.ends_with(UPLOAD_SUFFIX))
                        return false;
                    is_alone = false;
                }
            if (is_alone)
                return true;
            wait_for_another("another process");
        }
        return false; // the process of the other upload was killed
    }

    /// Renames a complete upload to a backup, unless another file has its number. If two processes upload
    /// under one number, at least one of them sees the other's file here. A remote may list files late;
    /// comparing the content detects this.
    bool give_name(const std::string &uploaded, BackupNumber number, const std::string &content) const
    {
        if (!wins(uploaded, number))
            return false;
        const std::string name = file_name(number);
        const Result moved = run({"moveto", "--ignore-existing", "--", file(uploaded), file(name)});
        const Result named = get(name);
        if (named.status == 0 && named.output == content) // the answer to the move may be lost
            return true;
        const std::string doubt = "; the backup may have been stored nevertheless";
        require_done(moved, doubt);
        require_done(named, doubt);
        if (!is_there(uploaded))
            refuse_changed();
        return false;
    }

    /// Deletes an upload. Ignores failures, since an upload is not a backup.
    void discard(const std::string &name) const
    {
        try {
            run({"deletefile", "--", file(name)});
        } catch (const HostError &) { // the caller reports why the upload failed
        }
    }

    /// Deletes uploads of processes that were killed, which would occupy their numbers and space for ever. No
    /// upload takes two days, by any remote's clock.
    void discard_abandoned(const std::vector<std::string> &names) const
    {
        if (std::any_of(names.begin(), names.end(),
                        [](const std::string &name) { return name.ends_with(UPLOAD_SUFFIX); }))
            run({"delete", "--max-depth=1", "--min-age", "2d", "--include",
                 std::string("/backup-{{[0-9]+}}.json.{{[0-9a-f]{16}}}") + UPLOAD_SUFFIX, "--", target});
    }

    const std::string target;
    mutable std::map<BackupNumber, std::string> prefetched; ///< the content of prefetched backups
    Child rclone{.program = "rclone", .arguments = {"--ask-password=false"}, .end_signal = SIGKILL};
};

} // namespace

std::unique_ptr<CloudStore> make_rclone_store(const std::string &location, const std::string &target)
{
    return std::make_unique<RcloneStore>(location, target);
}
