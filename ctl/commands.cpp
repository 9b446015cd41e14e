#include "commands.h"

#include <algorithm>
#include <charconv>

#include <glib.h>

#include "trace_options.h"

static std::string check_filled(const std::string &text)
{
    return text.empty() ? "it is empty" : "";
}

static std::string check_seconds(const std::string &text)
{
    const char *end = text.data() + text.size();
    double seconds = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
    const bool is_in_range = seconds >= 0.1 && seconds <= 86'400;
    return rest == end && error == std::errc() && is_in_range ? ""
                                                              : "not between 0.1 and 86400 seconds: " + text;
}

static bool matches(const std::string &text, const char *pattern)
{
    return g_regex_match_simple(pattern, text.c_str(), G_REGEX_RAW, {}) != FALSE;
}

static std::string check_count(const std::string &text)
{
    return matches(text, R"(^\d{1,9}\z)") ? "" : "not a number of backups: " + text;
}

static std::string check_age(const std::string &text)
{
    return matches(text, R"(^\d{1,6}[mhdw]\z)") ? ""
                                                : "not an age such as 12h or 30d (m, h, d or w): " + text;
}

static std::string check_failure(const std::string &text)
{
    if (!matches(text, R"(^[^#=]+(#[1-9]\d{0,5})?(=-?\d{1,9})?\z)"))
        return "not FUNCTION, FUNCTION#N, FUNCTION=CODE or FUNCTION#N=CODE: " + text;
    const std::string function = text.substr(0, text.find_first_of("#="));
    const std::vector<std::string> known(std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS));
    if (std::find(known.begin(), known.end(), function) == known.end())
        return "there is no function \"" + function + "\"" + did_you_mean(function, known);
    return "";
}

using enum Kind;
using enum Times;

static constexpr char BACKUPS[] = "Backups";
static constexpr char STORE[] = "The store of backups";
static constexpr char DEVICE[] = "The device";

static constexpr Argument NEWEST_OR_ONE = {"ID", "The backup's number, or latest", backup, at_most_once};
static constexpr Argument ONE_FILE = {"FILE", "The file", file, once};
// A row of the tables stands on few lines.
// clang-format off

static const std::vector<Option> TRACE_OPTIONS = {
    {"--fail", 0,
     "Have a call fail with a code (-1) instead of being made: the N-th call of the function, or the first. May "
     "be repeated",
     "FUNCTION[#N][=CODE]", check_failure, function, any},
    {"--compare", 0,
     "Show only how the calls differ from those in FILE: a trace in text, made elsewhere; \"-\" is standard input",
     "FILE", check_filled, file},
};

static const std::vector<Option> COMMON_OPTIONS = {
    {"--json", 0, "Write one JSON document, for scripts"},
    {"--quiet", 'q', "Write nothing but errors"},
    {"--verbose", 'v', "Show the service's log as it runs"},
    {"--timeout", 0, "How long to wait for the service, or a remote store (30)", "SECONDS", check_seconds},
    {"--store", 0,
     "Where the backups are: a folder, or a remote place such as rclone:s3:desk (default: cloud in the state "
     "folder)",
     "LOCATION", check_filled, file},
    {"--service", 0, "The service's program", "PROGRAM", check_filled, file},
    {"--help", 'h', "Show help"},
    {"--version", 0, "Show the version"},
};

static const std::vector<Command> SETTINGS_COMMANDS = {
    {"get", "Commands", "Show one setting",
     "Its value alone is shown, or \"(not set)\".",
     "ime-backupctl settings get selected_lang", run_settings_get, {{"NAME", "The setting", setting, once}}},
    {"set", "Commands", "Change settings",
     "A value is true or false (on or off, yes or no, 1 or 0) for a switch, languages with commas between "
     "them for a list, and an input method's identifier for default_keyboard.",
     "ime-backupctl settings set selected_lang en_US,ko_KR key_tap_sound off", run_settings_set,
     {{"NAME VALUE", "A setting, and its new value", setting_and_value, at_least_once}}},
    {"unset", "Commands", "Unset settings",
     "They are then at their defaults, as on a device where they were never changed.",
     "ime-backupctl settings unset prediction", run_settings_unset,
     {{"NAME", "The settings", setting, at_least_once}}},
    {"dump", "Commands", "Write the settings as JSON",
     "The document is that of settings --json. load takes it back.",
     "ime-backupctl settings dump >settings.json", run_settings_dump},
    {"load", "Commands", "Set the settings that a dump holds",
     "Settings that are null in FILE are unset. Settings that are missing in FILE do not change. Without FILE, or with "
     "\"-\", the dump is read from standard input.",
     "ime-backupctl settings load settings.json", run_settings_load, {{"FILE", "The file", file, at_most_once}}},
};

static const std::vector<Command> TRACE_COMMANDS = {
    {"backup", "Commands", "Show the calls of a backup",
     "The backup is stored.",
     "ime-backupctl trace backup --fail vconf_get_bool#2=-1", run_trace, {}, TRACE_OPTIONS},
    {"restore", "Commands", "Show the calls of a restore",
     "The newest backup is restored, or the one named. What is changed can be put back with undo.",
     "ime-backupctl trace restore 3 --fail scim::ConfigBase::flush", run_trace,
     {NEWEST_OR_ONE}, TRACE_OPTIONS},
    {"info", "Commands", "Show the calls that tell the keys and dates of a backup",
     "Nothing is read or stored.",
     "ime-backupctl trace info --json", run_trace, {}, TRACE_OPTIONS},
};

static const std::vector<Command> COMMANDS = {
    {"backup", BACKUPS, "Make a backup",
     "Has the service read the keyboard's settings, and stores them as a new backup. A switch that is not "
     "set is backed up as true, and a device without selected languages as one that selects English and "
     "Korean.",
     "ime-backupctl backup --if-changed", run_backup,
     {}, {{"--if-changed", 0, "Store nothing when the newest backup holds the same settings"}}},
    {"restore", BACKUPS, "Restore the newest backup, or the one named",
     "Has the service apply a backup, and shows what each setting was and has become, and why it is not as "
     "the backup has it. Only languages that are in downloaded_lang are selected, and handwriting is "
     "switched on only if one of them is in downloaded_with_handwriting_lang. The newest backup is the one that "
     "was added last, with the highest number, whatever its date. What a restore changed can be put back with "
     "undo. With --only or --except, ime-backupctl applies the backup itself, and the other settings stay exactly "
     "as they are.",
     "ime-backupctl restore 3 --dry-run", run_restore,
     {NEWEST_OR_ONE}, {{"--only", 0, "Restore only these settings", "NAME[,NAME...]", check_filled, setting},
                       {"--except", 0, "Restore all settings except these", "NAME[,NAME...]", check_filled, setting},
                       {"--dry-run", 0, "Show what a restore would do, and change nothing"},
                       {"--strict", 0, "Exit with 1 if a setting is not as the backup has it"}}},
    {"undo", BACKUPS, "Put back what a restore, or a change of settings, changed",
     "Each setting that it changed gets the value that it had before, or none if it had none. Without a number, "
     "this is the newest restore or change of settings that changed something and is not undone, also one that "
     "was interrupted: undo after undo goes further back. With the number of an entry in the history, it is that "
     "entry: the number of an undo takes the undo back.",
     "ime-backupctl undo --dry-run", run_undo, {{"ENTRY", "The entry's number in the history", entry, at_most_once}},
     {{"--dry-run", 0, "Show what would be put back, and change nothing"}}},
    {"list", BACKUPS, "List the backups, newest last",
     "Each is read and checked: of one that is damaged or can't be read, it says why.",
     "ime-backupctl list", run_list},
    {"show", BACKUPS, "Show the settings in the newest backup, or in the one named",
     "With --json it is the snapshot itself, byte for byte. Of a backup with several records, it is that of "
     "the last one, which is in force after a restore.",
     "ime-backupctl show 3", run_show, {NEWEST_OR_ONE}},
    {"diff", BACKUPS, "Compare a backup with the device, or with another backup",
     "Without a number, the newest backup is compared with the device; with one, that backup. Unset settings "
     "compare as their defaults; the order of languages does not matter. The exit status is 0 if the settings are "
     "the same, 1 if they differ, and another one if that can't be told.",
     "ime-backupctl diff 3 4", run_diff, {{"ID", "The backups' numbers, at most two, or latest", backup, any}}},
    {"log", BACKUPS, "Show what each backup changed",
     "Each backup, oldest first, is compared with the one before. With names, only backups in which one of these "
     "settings changed are shown. Of a backup that can't be read, it says why; the next one is compared with the last "
     "that can.",
     "ime-backupctl log selected_lang", run_log, {{"NAME", "The settings", setting, any}}},
    {"verify", STORE, "Check all backups, or those named",
     "Reads each backup and checks that it is what was written, and that its records hold snapshots. The "
     "exit status is 1 if one is damaged, and else 3 if one can't be read.",
     "ime-backupctl verify", run_verify, {{"ID", "The backups' numbers, or latest", backup, any}}},
    {"delete", STORE, "Delete backups",
     "If one of them isn't there, none is deleted. A backup is reported as deleted once it is no longer "
     "listed. A backup's number is never given to another.",
     "ime-backupctl delete 1 2", run_delete, {{"ID", "The backups' numbers, or latest", backup, at_least_once}}},
    {"prune", STORE, "Delete old backups, by rules that say which to keep",
     "A backup is kept if any rule keeps it; at least one has to be given. Days, weeks and months are those of the "
     "local time; of each, the backup with the latest date counts. Of the backups that aren't damaged, the one with "
     "the highest number and the one with the latest date are always kept. So is what can't be read: the others are "
     "deleted, and the exit status is 1. Rules that go by dates keep a backup without a date, unless it is damaged.",
     "ime-backupctl prune --keep-daily 7 --keep-weekly 4 --dry-run", run_prune,
     {}, {{"--keep", 0, "Keep the N newest", "N", check_count},
          {"--keep-within", 0, "Keep those that are younger than AGE: 12h, 30d, 8w", "AGE", check_age},
          {"--keep-daily", 0, "Keep the last one of each of the last N days that have one", "N", check_count},
          {"--keep-weekly", 0, "Keep the last one of each of the last N weeks that have one", "N", check_count},
          {"--keep-monthly", 0, "Keep the last one of each of the last N months that have one", "N", check_count},
          {"--dry-run", 0, "Show what would be deleted, and delete nothing"}}},
    {"export", STORE, "Write a backup to a file",
     "The file can be taken in with import, here or elsewhere. A file of this name is replaced. \"-\" is "
     "standard output.",
     "ime-backupctl export 3 keyboard.json", run_export,
     {{"ID", "The backup's number, or latest", backup, once}, ONE_FILE}},
    {"import", STORE, "Take a backup from a file into the store",
     "The file is one that export wrote, or a bare snapshot: any JSON object, such as one taken from a device. "
     "Problems of a snapshot are reported; it is imported anyway. \"-\" is standard input.",
     "ime-backupctl import keyboard.json", run_import, {ONE_FILE}},
    {"settings", DEVICE, "Show the settings as they are now, or change them",
     "The two downloaded lists are no part of a backup: they decide what of one a restore can bring back.",
     "ime-backupctl settings --long", run_settings,
     {}, {{"--long", 0, "Show where the device keeps each setting, and under which key"}}, SETTINGS_COMMANDS},
    {"history", DEVICE, "Show what was done to this device",
     "Each backup, restore, undo and change of settings is an entry, with the settings that it changed. The newest "
     "200 entries are kept, and of older ones those that can be undone. The exit status is 1 if an entry can't be "
     "read.",
     "ime-backupctl history", run_history},
    {"status", DEVICE, "Check that everything a backup needs is available",
     "Looks at the SCIM daemon, the active keyboard, the settings store, the cloud store and the last "
     "exchange, and says what to do about each that is not fine. A file is put into the cloud store and "
     "taken away again; a remote folder may be made for it. The exit status is 3 if something that a backup "
     "needs is missing.",
     "ime-backupctl status", run_status},
    {"info", DEVICE, "Show the keys and dates of what a backup would hold",
     "Asks the service what it would back up now. Nothing is read or stored.",
     "ime-backupctl info --json", run_info},
    {"trace", DEVICE, "Show what the service asks of the platform in an exchange",
     "Each call that the service makes, with its arguments, its result and the time that it took, stands "
     "below the callback that made it. What is set by the call has an & in front. The trace goes to standard "
     "output as the exchange runs; what the command without trace would tell goes to standard error. With "
     "--json, each line is an object. With --compare, the differences from another trace go to standard output "
     "instead, and the exchange is the one in FILE if none is named. Times, dates, threads, the numbers of "
     "handles and the lines of the source are not compared. The exit status is then 0 if the calls are the same, "
     "1 if they differ, and another one if that can't be told or the exchange fails.",
     "ime-backupctl trace --compare device.trace", run_trace,
     {}, TRACE_OPTIONS, TRACE_COMMANDS},
    {"help", "Help", "Explain a command",
     "",
     "ime-backupctl help restore", run_help, {{"COMMAND", "The command", command, any}}},
    {"complete", nullptr, "List what the last of these words may become",
     "",
     "ime-backupctl complete -- restore ''", run_complete,
     {{"WORD", "The words of a command line", text, any}}},
};

const Command PROGRAM = {
    "ime-backupctl", "", "Backs up and restores the settings of the on-screen keyboard", "",
    "ime-backupctl restore --dry-run", nullptr, {}, COMMON_OPTIONS, COMMANDS};
