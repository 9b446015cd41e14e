/** @file
 * The floor: a minimal program that makes a backup and a restore, for comparison with the service. It uses
 * the same libraries, reads and writes the same values, and makes them equally durable. It has no log, no
 * report and no handling of failures. Before a restore, it durably saves the old values, since a restore must
 * be undoable.
 *
 * Usage: floor backup | floor restore [NUMBER], with IME_BACKUP_HOST_DIR and IME_BACKUP_CLOUD_STORE set.
 */

#include <cstdio>
#include <cstdlib>

#include <json-glib/json-glib.h>

#include "cloud_store.h"
#include "daemon.h"
#include "device.h"
#include "files.h"
#include "paths.h"
#include "plan.h"
#include "settings_store.h"

static std::string no_refusal(const SettingRow &, const DeviceValue &)
{
    return "";
}

/// Makes the snapshot with the same library as the service.
static std::string make_snapshot(const DeviceState &state)
{
    const SnapshotValues values = plan_backup(state, no_refusal).snapshot;
    JsonObject *root = json_object_new();
    for (const SettingRow &row : SETTINGS) {
        const SnapshotValue &value = values[index_of(row)];
        if (is_switch(row)) {
            json_object_set_boolean_member(root, row.member, std::get<bool>(value) ? TRUE : FALSE);
        } else if (row.form == SettingForm::identifier) {
            json_object_set_string_member(root, row.member, std::get<std::string>(value).c_str());
        } else {
            JsonArray *array = json_array_new();
            for (const std::string &language : std::get<std::vector<std::string>>(value)) {
                JsonObject *element = json_object_new();
                json_object_set_string_member(element, MEMBER_LANG_ID, language.c_str());
                json_array_add_object_element(array, element);
            }
            json_object_set_array_member(root, row.member, array);
        }
    }
    g_autoptr(JsonNode) node = json_node_new(JSON_NODE_OBJECT);
    json_node_take_object(node, root);
    g_autofree gchar *text = json_to_string(node, FALSE);
    return text;
}

static void back_up(CloudStore &backups)
{
    const std::string now = std::to_string(g_get_real_time() / G_TIME_SPAN_MILLISECOND);
    const DeviceState state = host_device()->read_all();
    backups.add(encode_record_file({{RECORD_KEY, now, make_snapshot(state)}}));
}

static void restore(const CloudStore &backups, const std::string &number)
{
    const CloudRecords records = backups.read(backups.find(number)).records;
    const DeviceState before = host_device()->read_all();
    const std::filesystem::path saved = state_root() / "before.json";
    std::filesystem::remove(saved);
    create_file_durably(saved, make_snapshot(before));

    const DeviceState after = plan_restore({records.back().value}, before, no_refusal).device;
    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
    Settings stored;
    for (const SettingRow &row : SETTINGS) {
        const DeviceValue &value = after[index_of(row)];
        const scim::String key = row.form == SettingForm::identifier ? active_engine() : row.key;
        if (row.place == SettingPlace::settings_store)
            stored[key] = value;
        else
            std::visit([&](const auto &typed) { daemon->write(key, typed); }, *value);
    }
    SettingsStore::open()->set(stored);
    daemon->flush();
}

int main(int argc, char **argv)
try {
    const std::string operation = argc > 1 ? argv[1] : "";
    const std::unique_ptr<CloudStore> backups = open_store();
    if (operation == "backup")
        back_up(*backups);
    else if (operation == "restore")
        restore(*backups, argc > 2 ? argv[2] : "");
    else
        throw HostError("usage: floor backup | floor restore [NUMBER]");
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    fprintf(stderr, "floor: %s\n", error.what());
    return EXIT_FAILURE;
}
