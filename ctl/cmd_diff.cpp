#include "backups.h"
#include "setting.h"
#include "snapshot.h"

namespace
{

/// One of the two that are compared.
struct Side {
    Json id;
    std::string name;
    Snapshot snapshot;
};

} // namespace

static Side take_backup(const CloudStore &store, const std::string &id)
{
    const BackupNumber number = store.find(id);
    return {number, name_of(number), read_snapshot(snapshot_in(read_whole(store, number).records))};
}

/// The device, as a backup would have it.
static Side take_device(const ServiceOptions &service)
{
    return {std::string("device"), "device", read_snapshot(take_snapshot(service))};
}

static void diff(Cli &cli, const std::vector<std::string> &ids)
{
    cli.failure_status = EXIT_NO_PLATFORM; // 1 means that they differ
    if (ids.size() > 2)
        throw UsageError("no more than two backups can be compared");
    const auto store = open_store(cli.service.timeout_seconds);
    const Side from = take_backup(*store, ids.empty() ? "" : ids[0]);
    const Side to = ids.size() == 2 ? take_backup(*store, ids[1]) : take_device(cli.service);

    Table table{{{"name", "setting"}, {"from", from.name}, {"to", to.name}}, {}};
    for (size_t i = 0; i < std::size(SETTINGS); i++)
        if (!is_same_value(SETTINGS[i], from.snapshot[i], to.snapshot[i]))
            table.rows.push_back({SETTINGS[i].member, cell_of(SETTINGS[i], from.snapshot[i]),
                                  cell_of(SETTINGS[i], to.snapshot[i])});
    cli.status = table.rows.empty() ? EXIT_DONE : EXIT_FAILED;
    if (table.rows.empty())
        cli.document.say(from.name + " and " + (to.name == "device" ? "the device" : to.name) +
                         " hold the same settings");
    cli.document.set("from", Json(from.id));
    cli.document.set("to", Json(to.id));
    cli.document.set("differences", table);
}

void add_diff(Cli &cli)
{
    auto *command = add_command(
        cli.app,
        {"diff", GROUP_BACKUPS, "Compare a backup with the device, or with another backup",
         "Without a number, the newest backup is compared with the device; with one, that backup. The device "
         "is "
         "taken as a backup of it would be, with what is not set at its default; the order of languages does "
         "not matter. The exit status is 0 if the settings are the same, 1 if they differ, and another one "
         "if "
         "that can't be told.",
         "ime-backupctl diff 3 4"});
    const auto ids = std::make_shared<std::vector<std::string>>();
    add_arguments(*command, LABEL_ID, *ids, "The backups' numbers, at most two");
    command->callback([&cli, ids] { diff(cli, *ids); });
}
