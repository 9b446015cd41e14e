#include "backups.h"
#include "commands.h"
#include "setting.h"

/// One of the two that are compared.
struct Side {
    Json id;
    std::string name;
    SnapshotValues values;
};

static Side take_backup(const CloudStore &store, const std::string &id)
{
    const BackupNumber number = store.find(id);
    return {number, name_of(number), read_snapshot(snapshot_in(read_whole(store, number).records))->values};
}

/// The device, as a backup would have it.
static Side take_device(double timeout_seconds)
{
    const BackupPlan plan = plan_backup_here(timeout_seconds);
    if (!plan.obstacles.empty())
        throw_obstacle(plan.obstacles.front());
    return {"device", "device", plan.snapshot};
}

void run_diff(Cli &cli)
{
    const std::vector<std::string> &ids = cli.arguments;
    cli.failure_status = EXIT_NO_PLATFORM; // 1 means that they differ
    if (ids.size() > 2)
        throw UsageError("no more than two backups can be compared");
    const auto store = open_store(cli.timeout_seconds);
    const Side from = take_backup(*store, ids.empty() ? "" : ids[0]);
    const Side to = ids.size() == 2 ? take_backup(*store, ids[1]) : take_device(cli.timeout_seconds);

    Table table{{{"name", "setting"}, {"from", from.name}, {"to", to.name}}};
    for (const SettingRow &row : SETTINGS) {
        const DeviceValue one = device_value(row, from.values[index_of(row)]);
        const DeviceValue other = device_value(row, to.values[index_of(row)]);
        if (!is_same_value(row, one, other))
            table.rows.push_back({row.member, cell_of(row, one), cell_of(row, other)});
    }
    cli.status = table.rows.empty() ? EXIT_DONE : EXIT_FAILED;
    if (table.rows.empty())
        cli.document.say(from.name + " and " + (to.name == "device" ? "the device" : to.name) +
                         " hold the same settings");
    cli.document.set("from", from.id);
    cli.document.set("to", to.id);
    cli.document.set("differences", table);
}
