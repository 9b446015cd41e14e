#include <algorithm>
#include <iterator>
#include <map>
#include <regex>

#include <glib.h>

#include "backups.h"

namespace
{

struct Options {
    std::string keep;
    std::string keep_within;
    bool is_trial = false;
};

} // namespace

static std::int64_t parse_age(const std::string &text)
{
    static const std::map<char, std::int64_t> seconds = {
        {'m', 60}, {'h', 3600}, {'d', 86'400}, {'w', 7 * std::int64_t{86'400}}};
    return std::stoll(text) * seconds.at(text.back()) * 1000;
}

static std::string check_count(const std::string &text)
{
    static const std::regex count("[0-9]{1,9}");
    return std::regex_match(text, count) ? "" : "not a number of backups: " + text;
}

static std::string check_age(const std::string &text)
{
    static const std::regex age("[0-9]{1,6}[mhdw]");
    return std::regex_match(text, age) ? "" : "not an age such as 12h or 30d (m, h, d or w): " + text;
}

/// Whether a backup is younger than this. One that can't be read has no age.
static bool is_younger(const CloudStore &store, BackupNumber number, std::int64_t age)
{
    try {
        const auto date = parse_date(date_of(store.read(number).records));
        return date && g_get_real_time() / 1000 - *date < age;
    } catch (const DamagedError &) {
        return false;
    } catch (const NoBackupError &) {
        return false;
    }
}

static bool is_kept(const CloudStore &store, BackupNumber number, const Options &options)
{
    return !options.keep_within.empty() && is_younger(store, number, parse_age(options.keep_within));
}

/// The backups that go.
static std::vector<BackupNumber> choose(const CloudStore &store, const std::vector<BackupNumber> &known,
                                        const Options &options)
{
    if (!options.keep_within.empty())
        store.fetch(known);
    const auto newest_good = find_newest_good(store, known);
    const size_t keep = std::stoul(options.keep);
    std::vector<BackupNumber> going;
    for (size_t i = 0; i + keep < known.size(); i++)
        if (known[i] != newest_good && !is_kept(store, known[i], options))
            going.push_back(known[i]);
    return going;
}

static void prune(Cli &cli, const Options &options)
{
    const auto store = open_store(cli.service.timeout_seconds);
    const std::vector<BackupNumber> known = list_backups(*store);
    if (!options.is_trial && !known.empty()) {
        delete_and_tell(cli.document, *store,
                        [&](const std::vector<BackupNumber> &now) { return choose(*store, now, options); });
        return;
    }
    const std::vector<BackupNumber> going = choose(*store, known, options);
    std::vector<BackupNumber> kept;
    std::set_difference(known.begin(), known.end(), going.begin(), going.end(), std::back_inserter(kept));
    tell_deleted(cli.document, going, kept, "would be deleted");
}

void add_prune(Cli &cli)
{
    auto *command = add_command(cli.app, {"prune", GROUP_STORE, "Delete all backups but the newest ones",
                                          "The newest backup that isn't damaged is always kept.",
                                          "ime-backupctl prune --keep 5 --keep-within 30d --dry-run"});
    const auto options = std::make_shared<Options>();
    command->add_option("--keep", options->keep, "How many of the newest backups to keep")
        ->required()
        ->type_name("N")
        ->check(check_count);
    command
        ->add_option("--keep-within", options->keep_within, "Keep those that are younger, too: 12h, 30d, 8w")
        ->type_name("AGE")
        ->check(check_age);
    command->add_flag("--dry-run", options->is_trial, "Show what would be deleted, and delete nothing");
    command->callback([&cli, options] { prune(cli, *options); });
}
