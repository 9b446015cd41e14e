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
#include "contact.h"
#include "files.h"
#include "process.h"
#include "text.h"

namespace fs = std::filesystem;

/// Behind the name of a backup's file and a random word: it is being uploaded, or its upload was cut off.
static constexpr char UPLOAD_SUFFIX[] = ".new";
/// Behind the name of a backup's file: the backup was the newest when it was deleted, and its number was
/// given.
static constexpr char NOTE_SUFFIX[] = ".gone";
static constexpr char NOTE[] = "The number in this file's name is not given to another backup.\n";

/// Flags of rclone that change what is copied, listed, logged or deleted. It takes them from variables, too,
/// which are meant for other calls.
static constexpr char FLAGS_OF_OTHERS[] =
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
/// What traces the service, among what is preloaded, is not for what it starts.
static constexpr char TRACER[] = R"([^ :]*libime-backup-trace\.so[ :]*)";

static constexpr int MAX_TRIES = 8;

/// A silent server has failed after this time, and after this part of the time left. rclone tries twice, and
/// there is time to report its reason.
static constexpr std::int64_t MAX_PATIENCE_US = 10'000'000;
static constexpr std::int64_t SHARE_OF_PATIENCE = 4;

/// The exit status of rclone when there is no such folder.
static constexpr int NO_SUCH_FOLDER = 3;

/// How a line of rclone's log begins.
static constexpr char STAMP[] = R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d )";
static constexpr size_t STAMP_SIZE = sizeof "0000/00/00 00:00:00 " - 1;
static constexpr size_t MAX_REASON = 400;
static constexpr char TOO_LATE[] = "rclone did not finish in time";

/// A file in memory. Unlike a pipe it is whole when a process begins to read it, whatever becomes of this
/// one.
static Descriptor make_file(const std::string &content)
{
    Descriptor file(memfd_create("rclone", MFD_CLOEXEC));
    if (!file || !write_at(file, 0, content))
        throw HostError("there is no memory left for rclone's input and output");
    return file;
}

/// The last line that rclone logged, without the time and the level.
static std::string find_reason(const std::string &errors)
{
    std::string reason;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
        if (g_regex_match_simple(STAMP, line.c_str(), G_REGEX_RAW, {}) != FALSE)
            reason = line.substr(STAMP_SIZE);
        else if (reason.empty()) // not logged; behind what is, the rest of a server's answer
            reason = line;
    for (const char *level : {"ERROR : ", "CRITICAL: "})
        if (reason.starts_with(level))
            reason.erase(0, strlen(level));
    return escaped(CloudStore::without_secrets(reason).substr(0, MAX_REASON));
}

namespace
{

/// Runs the program rclone, which reaches remote stores of many kinds. No place of this kind can be locked,
/// and few can make a file only if there is none of its name. So a backup is uploaded under a name of its
/// own, which takes up its number without counting as a backup; when no other file has this number, then or
/// before, it gets the name of a backup. What can't be written to shows only when it is written to.
class RcloneStore : public CloudStore
{
public:
    RcloneStore(const std::string &location, std::string rclone_target)
        : CloudStore(location), target(std::move(rclone_target))
    {
        const std::int64_t patience = std::min(
            MAX_PATIENCE_US, time_left().value_or(MAX_PATIENCE_US * SHARE_OF_PATIENCE) / SHARE_OF_PATIENCE);
        const std::string milliseconds = std::to_string(patience / 1000) + "ms";
        // Where the environment says nothing else: what fails is tried once more.
        rclone.environment.merge(Environment{{"RCLONE_RETRIES", "1"},
                                             {"RCLONE_LOW_LEVEL_RETRIES", "2"},
                                             {"RCLONE_CONTIMEOUT", milliseconds},
                                             {"RCLONE_TIMEOUT", milliseconds}});
        g_autoptr(GRegex) others_flags = g_regex_new(FLAGS_OF_OTHERS, G_REGEX_RAW, {}, nullptr);
        std::erase_if(rclone.environment, [&](const auto &variable) {
            return variable.first.starts_with("IME_BACKUP_TRACE") ||
                   g_regex_match(others_flags, variable.first.c_str(), {}, nullptr) != FALSE;
        });
        if (const auto preloaded = rclone.environment.find("LD_PRELOAD");
            preloaded != rclone.environment.end()) {
            g_autoptr(GRegex) tracer = g_regex_new(TRACER, G_REGEX_RAW, {}, nullptr);
            g_autofree gchar *others =
                g_regex_replace_literal(tracer, preloaded->second.c_str(), -1, 0, "", {}, nullptr);
            preloaded->second = others;
        }
    }

    void fetch(const std::vector<BackupNumber> &numbers) const override
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
        // A file that is not copied here is read alone later, which shows the reason.
        const Result copied = run({"copy", "--include-from", "-", "--max-size",
                                   std::to_string(MAX_RECORD_FILE_SIZE) + "B", "--", target, folder.get()},
                                  names);
        if (copied.status < 0) // killed in the middle of a file
            require_done(copied);
        std::error_code ignored;
        for (const BackupNumber number : numbers)
            if (const fs::path copy = fs::path(folder.get()) / file_name(number); fs::exists(copy, ignored))
                fetched[number] = read_file(copy, MAX_RECORD_FILE_SIZE);
    }

    std::optional<std::uintmax_t> size(BackupNumber number) const override
    {
        const auto known = fetched.find(number);
        return known == fetched.end() ? std::nullopt : std::optional(known->second.size());
    }

    /// Uploads a file that takes up no number, and takes it away again. A place that wasn't there may be
    /// there afterwards, with nothing in it.
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
        throw HostError("others keep adding backups to " + location() + " at the same time");
    }

    void remove(const Choose &choose) override
    {
        const std::vector<std::string> names = names_there();
        const std::vector<BackupNumber> known = parse_listing(names).numbers;
        const std::vector<BackupNumber> going = choose(known);
        if (going.empty())
            return;
        std::vector<std::string> files;
        std::ranges::transform(going, std::back_inserter(files), file_name);
        if (std::ranges::count(going, known.back()) > 0) {
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
        std::string reason; ///< of a failure, for a person
    };

    /// Runs a subcommand of rclone to its end. While it runs, the main loop of this process stands still;
    /// SIGINT and SIGTERM end it nevertheless.
    ///
    /// @param input its standard input
    /// @throws PlatformError when rclone isn't installed
    /// @throws TimeoutError
    /// @throws InterruptedError after a signal, of which the main loop learns, too
    Result run(const std::vector<std::string> &arguments, const std::string &input = "") const
    {
        const Descriptor input_file = make_file(input);
        const Descriptor output = make_file("");
        const Descriptor errors = make_file("");
        Child child = rclone;
        child.arguments.insert(child.arguments.end(), arguments.begin(), arguments.end());
        child.files = {
            {STDIN_FILENO, input_file.get()}, {STDOUT_FILENO, output.get()}, {STDERR_FILENO, errors.get()}};
        child.microseconds = time_left();
        const ChildEnd end = run_child(std::move(child));
        if (end.error == ENOENT)
            throw PlatformError("a remote store needs the program rclone: apt-get install rclone");
        if (end.error != 0)
            throw PlatformError(std::string("can't start rclone: ") + strerror(end.error));
        if (end.stopped == Stop::interrupted)
            throw InterruptedError("interrupted; what the remote store was asked to do may be done");
        if (end.stopped == Stop::timed_out)
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
        // With the folders, whose names end in a slash: they, too, are in the way of a file.
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

    /// The content of a file, or the beginning of one that is too large for a backup. There may be none of a
    /// file that isn't there: a remote without folders takes it for a folder with nothing in it.
    Result get(const std::string &name) const
    {
        // Without --no-traverse, rclone looks for the file in a listing of the folder. Some servers cut that
        // short when another file vanishes meanwhile, and rclone then prints nothing and succeeds.
        return run(
            {"cat", "--no-traverse", "--count", std::to_string(MAX_RECORD_FILE_SIZE + 1), "--", file(name)});
    }

    void put(const std::string &name, const std::string &content) const
    {
        // Told the size, rclone keeps no copy of its own meanwhile, which it would leave behind when killed.
        require_done(run({"rcat", "--size", std::to_string(content.size()), "--", file(name)}, content));
    }

    std::string read_content(BackupNumber number) const override
    {
        if (const auto known = fetched.find(number); known != fetched.end())
            return known->second;
        const Result result = get(file_name(number));
        if (result.output.size() > MAX_RECORD_FILE_SIZE)
            throw DamagedError("it is larger than " + std::to_string(MAX_RECORD_FILE_SIZE) + " bytes");
        const bool is_read = result.status == 0 && !result.output.empty();
        if (!is_read && !is_there(file_name(number)))
            throw NoBackupError("there is no backup " + std::to_string(number));
        if (!is_read) // and the rest of the store can be used
            throw UnreadableError(result.status == 0 ? "it comes as an empty file" : result.reason);
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
        throw HostError("the cloud store " + location() + " does not hand back what was put into it");
    }

    /// Puts a file there, and sees that it is whole.
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

    /// @return false when another process may take the number
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

    /// True once no other file has the number of an upload. Of several uploads of a number, only the first by
    /// name waits for the others to go: if all gave way, they could meet again under the next number.
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

    /// Makes a backup of an upload that is whole, if no other file has its number. Of two processes that
    /// upload under one number, at least one sees the other's file here. What a remote shows late is noticed
    /// by the content.
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

    /// Does what it can: what is left over is no backup.
    void discard(const std::string &name) const
    {
        try {
            run({"deletefile", "--", file(name)});
        } catch (const HostError &) { // the reason why it was given up is told
        }
    }

    /// Uploads of processes that were killed would keep their numbers, and their space, for ever. None takes
    /// two days, by any remote's clock.
    void discard_abandoned(const std::vector<std::string> &names) const
    {
        if (std::any_of(names.begin(), names.end(),
                        [](const std::string &name) { return name.ends_with(UPLOAD_SUFFIX); }))
            run({"delete", "--max-depth=1", "--min-age", "2d", "--include",
                 std::string("/backup-{{[0-9]+}}.json.{{[0-9a-f]{16}}}") + UPLOAD_SUFFIX, "--", target});
    }

    const std::string target;
    mutable std::map<BackupNumber, std::string> fetched; ///< what was handed over together
    Child rclone{.program = "rclone", .arguments = {"--ask-password=false"}, .end_signal = SIGKILL};
};

} // namespace

std::unique_ptr<CloudStore> make_rclone_store(const std::string &location, const std::string &target)
{
    return std::make_unique<RcloneStore>(location, target);
}
