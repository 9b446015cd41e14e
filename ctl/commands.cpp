#include "commands.h"

#include <algorithm>
#include <charconv>

#include <glib.h>

#include "trace_options.h"

static std::string check_filled(const std::string &text)
{
    return text.empty() ? "must not be empty" : "";
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
        return "unknown function \"" + function + "\"" + did_you_mean(function, known);
    return "";
}

using enum ValueKind;
using enum Times;

static constexpr char BACKUPS[] = "Backups";
static constexpr char STORE[] = "The cloud store";
static constexpr char DEVICE[] = "The device";

static constexpr Argument NEWEST_OR_ONE = {"ID", "The backup's number, or latest", backup, at_most_once};
static constexpr Argument ONE_FILE = {"FILE", "The file", file, once};
// A command is one row of few lines.
// clang-format off

static const std::vector<Option> TRACE_OPTIONS = {
    {"--fail", 0,
     "Do not make the N-th call of FUNCTION (default: the first), but let it fail with CODE (default: -1). May be "
     "repeated",
     "FUNCTION[#N][=CODE]", check_failure, function, any},
    {"--compare", 0,
     "Show only the differences from the trace in FILE, a text trace made elsewhere; \"-\" is standard input",
     "FILE", check_filled, file},
};

static const std::vector<Option> COMMON_OPTIONS = {
    {"--json", 0, "Write one JSON document, for scripts"},
    {"--quiet", 'q', "Write nothing but errors"},
    {"--verbose", 'v', "Show the service's log as it runs"},
    {"--timeout", 0, "How long to wait for the service, or for a remote store (default: 30)", "SECONDS",
     check_seconds},
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
     "Prints the value alone, or \"(not set)\".",
     "ime-backupctl settings get selected_lang", run_settings_get, {{"NAME", "The setting", setting, once}}},
    {"set", "Commands", "Change settings",
     "A switch takes true or false (also on or off, yes or no, 1 or 0), a list takes languages separated by commas, "
     "and default_keyboard takes an input method's identifier.",
     "ime-backupctl settings set selected_lang en_US,ko_KR key_tap_sound off", run_settings_set,
     {{"NAME VALUE", "A setting, and its new value", setting_and_value, at_least_once}}},
    {"unset", "Commands", "Unset settings",
     "Unset settings have their defaults, as on a device where they were never changed.",
     "ime-backupctl settings unset prediction", run_settings_unset,
     {{"NAME", "The settings", setting, at_least_once}}},
    {"dump", "Commands", "Write the settings as JSON",
     "Writes the same document as settings --json. Read it back with load.",
     "ime-backupctl settings dump >settings.json", run_settings_dump},
    {"load", "Commands", "Set the settings from a dump",
     "Settings that are null in FILE are unset. Settings that are missing in FILE do not change. Without FILE, or with "
     "\"-\", the dump is read from standard input.",
     "ime-backupctl settings load settings.json", run_settings_load, {{"FILE", "The file", file, at_most_once}}},
};

static const std::vector<Command> TRACE_COMMANDS = {
    {"backup", "Commands", "Show the calls of a backup",
     "The backup is stored.",
     "ime-backupctl trace backup --fail vconf_get_bool#2=-1", run_trace, {}, TRACE_OPTIONS},
    {"restore", "Commands", "Show the calls of a restore",
     "Restores the newest backup, or the one named. Use undo to revert the restore.",
     "ime-backupctl trace restore 3 --fail scim::ConfigBase::flush", run_trace,
     {NEWEST_OR_ONE}, TRACE_OPTIONS},
    {"info", "Commands", "Show the calls that get the keys and dates of a backup",
     "Nothing is read or stored.",
     "ime-backupctl trace info --json", run_trace, {}, TRACE_OPTIONS},
};

static const std::vector<Command> COMMANDS = {
    {"backup", BACKUPS, "Make a backup",
     "The service reads the keyboard's settings, which are stored as a new backup. An unset switch is backed up as "
     "true. Without selected languages, English and Korean are backed up.",
     "ime-backupctl backup --if-changed", run_backup,
     {}, {{"--if-changed", 0, "Store nothing if the newest backup holds the same settings"}}},
    {"restore", BACKUPS, "Restore a backup (default: the newest)",
     "The service applies the backup. The table shows each setting before and after, and why a setting differs from "
     "the backup. Only languages in downloaded_lang are selected. Handwriting is switched on only if one of them is "
     "in downloaded_with_handwriting_lang. The newest backup is the one with the highest number, whatever its date. "
     "With --only or --except, ime-backupctl applies the backup itself, and the other settings stay exactly as they "
     "are. Use undo to revert a restore.",
     "ime-backupctl restore 3 --dry-run", run_restore,
     {NEWEST_OR_ONE}, {{"--only", 0, "Restore only these settings", "NAME[,NAME...]", check_filled, setting},
                       {"--except", 0, "Restore all settings except these", "NAME[,NAME...]", check_filled, setting},
                       {"--dry-run", 0, "Show what would be restored, and change nothing"},
                       {"--strict", 0, "Exit with 1 if a setting differs from the backup"}}},
    {"undo", BACKUPS, "Revert a restore or a change of settings",
     "Each setting that was changed gets its earlier value back, or is unset if it was unset. Without ENTRY, undoes "
     "the newest change that is not undone yet; repeat undo to go further back. An interrupted change can be undone, "
     "too. To take an undo back, give its own entry.",
     "ime-backupctl undo --dry-run", run_undo, {{"ENTRY", "The entry's number in the history", entry, at_most_once}},
     {{"--dry-run", 0, "Show what would be undone, and change nothing"}}},
    {"list", BACKUPS, "List the backups, newest last",
     "Each backup is read and checked. A remark shows why a backup is damaged or can't be read.",
     "ime-backupctl list", run_list},
    {"show", BACKUPS, "Show the settings in a backup (default: the newest)",
     "With --json, prints the snapshot itself, byte for byte. If the backup has several records, the snapshot is that "
     "of the last one, which a restore applies last.",
     "ime-backupctl show 3", run_show, {NEWEST_OR_ONE}},
    {"diff", BACKUPS, "Compare a backup with the device or another backup",
     "Without ID, compares the newest backup with the device; with one, that backup. Unset settings compare as their "
     "defaults. The order of languages does not matter. The exit status is 0 if the settings are the same, 1 if they "
     "differ, and greater than 1 if they can't be compared.",
     "ime-backupctl diff 3 4", run_diff, {{"ID", "The backups' numbers, at most two, or latest", backup, any}}},
    {"log", BACKUPS, "Show what each backup changed",
     "Compares each backup, oldest first, with the one before it. With names, shows only the backups in which one of "
     "these settings changed. A remark shows why a backup can't be read; the next backup is then compared with the "
     "last readable one.",
     "ime-backupctl log selected_lang", run_log, {{"NAME", "The settings", setting, any}}},
    {"verify", STORE, "Check all backups, or those named",
     "Reads each backup, and checks that its file is unchanged and that its records hold snapshots. The exit status "
     "is 1 if a backup is damaged. Otherwise it is 3 if a backup can't be read.",
     "ime-backupctl verify", run_verify, {{"ID", "The backups' numbers, or latest", backup, any}}},
    {"delete", STORE, "Delete backups",
     "If one of the backups does not exist, none is deleted. A backup is reported as deleted once it is no longer "
     "listed. Numbers are never reused.",
     "ime-backupctl delete 1 2", run_delete, {{"ID", "The backups' numbers, or latest", backup, at_least_once}}},
    {"prune", STORE, "Delete old backups, except those that a rule keeps",
     "A backup is kept if any rule keeps it. At least one rule is required. The table shows which rules keep a backup. "
     "Days, weeks and months are in local time; of each, the backup with the latest date is kept. Among the undamaged "
     "backups, the one with the highest number and the one with the latest date are always kept. Rules about dates "
     "keep undamaged backups that have no date. Backups that can't be read are kept, and the exit status is then 1.",
     "ime-backupctl prune --keep-daily 7 --keep-weekly 4 --dry-run", run_prune,
     {}, {{"--keep", 0, "Keep the N newest", "N", check_count},
          {"--keep-within", 0, "Keep those younger than AGE, such as 12h, 30d or 8w", "AGE", check_age},
          {"--keep-daily", 0, "Keep one for each of the last N days that have a backup", "N", check_count},
          {"--keep-weekly", 0, "Keep one for each of the last N weeks that have a backup", "N", check_count},
          {"--keep-monthly", 0, "Keep one for each of the last N months that have a backup", "N", check_count},
          {"--dry-run", 0, "Show what would be deleted, and delete nothing"}}},
    {"export", STORE, "Write a backup to a file",
     "Use import to read the file, here or on another device. An existing file is replaced. \"-\" is standard output.",
     "ime-backupctl export 3 keyboard.json", run_export,
     {{"ID", "The backup's number, or latest", backup, once}, ONE_FILE}},
    {"import", STORE, "Add a backup from a file to the store",
     "FILE is an exported backup, or a snapshot: any JSON object, such as one taken from a device. Problems in a "
     "snapshot are reported; it is imported anyway. \"-\" is standard input.",
     "ime-backupctl import keyboard.json", run_import, {ONE_FILE}},
    {"settings", DEVICE, "Show the current settings, or change them",
     "The two downloaded lists are not part of a backup. They limit what a restore can bring back.",
     "ime-backupctl settings --long", run_settings,
     {}, {{"--long", 0, "Show where the device keeps each setting, and under which key"}}, SETTINGS_COMMANDS},
    {"history", DEVICE, "Show what was done to this device",
     "Each backup, restore, undo and change of settings is an entry, with the settings that it changed. The newest "
     "200 entries are kept, and older ones that can still be undone. The exit status is 1 if an entry can't be read.",
     "ime-backupctl history", run_history},
    {"status", DEVICE, "Check that everything a backup needs is available",
     "Checks the SCIM daemon, the active keyboard, the settings store, the exchange files, the cloud store and the "
     "last exchange, and says how to mend each fault. To test the cloud store, a file is created in it and removed; "
     "in a remote store, this may create a folder. The exit status is 3 if something that a backup needs is missing.",
     "ime-backupctl status", run_status},
    {"info", DEVICE, "Show the keys and dates of the records in a new backup",
     "Asks the service which records it would back up now. Nothing is read or stored.",
     "ime-backupctl info --json", run_info},
    {"trace", DEVICE, "Show the service's calls to the platform",
     "Shows each call of an exchange with its arguments, its result and its duration, below the callback that made it. "
     "An & marks an argument that the call sets. The trace goes to standard output while the exchange runs; the output "
     "of the command without trace goes to standard error. With --json, each line is an object. With --compare, only "
     "the differences are shown, and the exchange defaults to that of FILE. Times, dates, threads, the numbers of "
     "handles and source lines are not compared. The exit status of a comparison is 0 if the calls are the same, 1 if "
     "they differ, and greater than 1 if they can't be compared or the exchange fails.",
     "ime-backupctl trace --compare device.trace", run_trace,
     {}, TRACE_OPTIONS, TRACE_COMMANDS},
    {"help", "Help", "Explain a command",
     "",
     "ime-backupctl help restore", run_help, {{"COMMAND", "The command", command, any}}},
    {"complete", nullptr, "List the completions of the last word",
     "",
     "ime-backupctl complete -- restore ''", run_complete,
     {{"WORD", "The words of a command line", text, any}}},
};

const Command PROGRAM = {
    "ime-backupctl", "", "Backs up and restores the settings of the on-screen keyboard", "",
    "ime-backupctl restore --dry-run", nullptr, {}, COMMON_OPTIONS, COMMANDS};
