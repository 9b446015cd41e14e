/** @file
 * The floor that the service is measured against: what a backup and a restore can't do without, in one
 * program on the same libraries. It reads the same values, writes the same values as durably, and does
 * nothing between: no log, no report, and no failure that it survives. Before a restore it notes, durably,
 * too, what was set: what can't be undone is no restore.
 *
 * Usage: floor backup | floor restore [NUMBER], with IME_BACKUP_HOST_DIR and IME_BACKUP_CLOUD_STORE set.
 */

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#define Uses_SCIM_CONFIG_PATH
#define Uses_SCIM_SOCKET
#define Uses_SCIM_TRANSACTION
#define Uses_SCIM_TRANS_COMMANDS
#include <scim.h>

#include <json-glib/json-glib.h>
#include <sqlite3.h>

#include "plan.h"
#include "record_file.h"

static void require(bool done, const char *what)
{
    if (done)
        return;
    fprintf(stderr, "floor: can't %s\n", what);
    exit(EXIT_FAILURE);
}

static std::string place(const char *variable)
{
    const char *path = getenv(variable);
    require(path != nullptr, variable);
    return path;
}

// The SCIM daemon: one connection, and a question for each value, as SCIM's own configuration asks.

namespace
{

class Daemon
{
public:
    Daemon()
    {
        const scim::SocketAddress address(scim::scim_get_default_socket_config_address());
        require(socket.connect(address) && scim::scim_socket_open_connection(
                                               magic_key, "SocketConfig", "SocketFrontEnd", socket, timeout),
                "connect to the SCIM daemon");
    }

    template <class Data>
    Data get(int command, const scim::String &key)
    {
        Data data{};
        ask(command, key);
        require(transaction.get_data(data), "read the configuration");
        take_done();
        return data;
    }

    template <class... Data>
    void put(int command, const Data &...data)
    {
        ask(command, data...);
        take_done();
    }

private:
    template <class... Data>
    void ask(int command, const Data &...data)
    {
        int reply = 0;
        transaction.clear();
        transaction.put_command(scim::SCIM_TRANS_CMD_REQUEST);
        transaction.put_data(magic_key);
        transaction.put_command(command);
        (transaction.put_data(data), ...);
        require(transaction.write_to_socket(socket) && transaction.read_from_socket(socket, timeout) &&
                    transaction.get_command(reply) && reply == scim::SCIM_TRANS_CMD_REPLY,
                "ask the SCIM daemon");
    }

    void take_done()
    {
        int reply = 0;
        require(transaction.get_command(reply) && reply == scim::SCIM_TRANS_CMD_OK, "use the configuration");
    }

    const int timeout = scim::scim_get_default_socket_timeout();
    scim::uint32 magic_key = 0;
    scim::SocketClient socket;
    scim::Transaction transaction;
};

/// The settings store.
class Store
{
public:
    Store()
    {
        require(sqlite3_open_v2((place("IME_BACKUP_HOST_DIR") + "/settings.db").c_str(), &database,
                                SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK,
                "open the settings store");
        run("PRAGMA synchronous = FULL");
    }
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;
    ~Store()
    {
        sqlite3_finalize(query);
        sqlite3_finalize(update);
        sqlite3_close(database);
    }

    void run(const char *sql)
    {
        require(sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
    }

    DeviceValue get(const SettingRow &row)
    {
        if (query == nullptr)
            query = prepare("SELECT value FROM settings WHERE key = ?");
        sqlite3_bind_text(query, 1, row.key, -1, SQLITE_STATIC);
        require(sqlite3_step(query) == SQLITE_ROW, row.key);
        const std::string text = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
        sqlite3_reset(query);
        return is_switch(row) ? DeviceValue(text == "1") : DeviceValue(text);
    }

    void set(const SettingRow &row, const DeviceValue &value)
    {
        if (update == nullptr)
            update = prepare("INSERT OR REPLACE INTO settings VALUES (?, ?, ?)");
        const std::string text = is_switch(row) ? (value == DeviceValue(true) ? "1" : "0") : config_text(value);
        sqlite3_bind_text(update, 1, row.key, -1, SQLITE_STATIC);
        sqlite3_bind_text(update, 2, is_switch(row) ? "bool" : "string", -1, SQLITE_STATIC);
        sqlite3_bind_text(update, 3, text.c_str(), -1, SQLITE_TRANSIENT);
        require(sqlite3_step(update) == SQLITE_DONE, row.key);
        sqlite3_reset(update);
    }

private:
    sqlite3_stmt *prepare(const char *sql)
    {
        sqlite3_stmt *statement = nullptr;
        require(sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }

    sqlite3 *database = nullptr;
    sqlite3_stmt *query = nullptr;
    sqlite3_stmt *update = nullptr;
};

} // namespace

/// The engine that SCIM takes for languages without one of their own.
static scim::String key_of(const SettingRow &row)
{
    return row.form == SettingForm::identifier ? SCIM_CONFIG_DEFAULT_IMENGINE_FACTORY "/~other" : row.key;
}

/// How a switch travels.
static int command_of(const SettingRow &row, int integer, int boolean)
{
    return row.form == SettingForm::integer_switch ? integer : boolean;
}

static DeviceState read_device(Daemon &daemon, Store &store, std::span<const SettingRow> rows)
{
    DeviceState state;
    for (const SettingRow &row : rows) {
        DeviceValue &value = state[index_of(row)];
        if (row.place == SettingPlace::settings_store) {
            value = store.get(row);
        } else if (row.form == SettingForm::identifier) {
            value = daemon.get<scim::String>(scim::SCIM_TRANS_CMD_GET_CONFIG_STRING, key_of(row));
        } else {
            const int command = command_of(row, scim::SCIM_TRANS_CMD_GET_CONFIG_INT,
                                           scim::SCIM_TRANS_CMD_GET_CONFIG_BOOL);
            value = device_value(row, daemon.get<scim::uint32>(command, key_of(row)) != 0);
        }
    }
    return state;
}

static void write_device(const DeviceState &state, Daemon &daemon, Store &store)
{
    store.run("BEGIN IMMEDIATE");
    for (const SettingRow &row : SETTINGS) {
        const DeviceValue &value = state[index_of(row)];
        if (row.place == SettingPlace::settings_store)
            store.set(row, value);
        else if (row.form == SettingForm::identifier)
            daemon.put(scim::SCIM_TRANS_CMD_SET_CONFIG_STRING, key_of(row), scim::String(config_text(value)));
        else
            daemon.put(command_of(row, scim::SCIM_TRANS_CMD_SET_CONFIG_INT,
                                  scim::SCIM_TRANS_CMD_SET_CONFIG_BOOL),
                       key_of(row), scim::uint32(*read_switch(row, value) ? 1 : 0));
    }
    daemon.put(scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
    store.run("COMMIT");
}

// The snapshot, with the library that the service writes it with.

static std::string make_snapshot(const SnapshotValues &values)
{
    g_autoptr(JsonBuilder) builder = json_builder_new();
    json_builder_begin_object(builder);
    for (const SettingRow &row : SETTINGS) {
        const SnapshotValue &value = values[index_of(row)];
        json_builder_set_member_name(builder, row.member);
        if (row.form == SettingForm::identifier) {
            json_builder_add_string_value(builder, std::get<std::string>(value).c_str());
        } else if (row.form == SettingForm::languages) {
            json_builder_begin_array(builder);
            for (const std::string &language : std::get<std::vector<std::string>>(value)) {
                json_builder_begin_object(builder);
                json_builder_set_member_name(builder, MEMBER_LANG_ID);
                json_builder_add_string_value(builder, language.c_str());
                json_builder_end_object(builder);
            }
            json_builder_end_array(builder);
        } else {
            json_builder_add_boolean_value(builder, std::get<bool>(value) ? TRUE : FALSE);
        }
    }
    json_builder_end_object(builder);
    g_autoptr(JsonNode) root = json_builder_get_root(builder);
    g_autofree gchar *text = json_to_string(root, FALSE);
    return text;
}

static std::string no_refusal(const SettingRow &, const DeviceValue &)
{
    return "";
}

// The folder of backups.

static unsigned find_newest(const std::string &folder)
{
    GDir *directory = g_dir_open(folder.c_str(), 0, nullptr);
    require(directory != nullptr, "list the backups");
    unsigned newest = 0;
    while (const char *name = g_dir_read_name(directory)) {
        unsigned number = 0;
        if (sscanf(name, "backup-%6u.json", &number) == 1) // NOLINT(cert-err34-c): no number is a 0
            newest = std::max(newest, number);
    }
    g_dir_close(directory);
    return newest;
}

static std::string name_of(unsigned number)
{
    char name[32];
    snprintf(name, sizeof name, "/backup-%06u.json", number);
    return name;
}

static void write_durably(const std::string &folder, const std::string &name, const std::string &content)
{
    const std::string file = folder + name;
    const std::string partial = file + ".new";
    const int descriptor = open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    require(descriptor >= 0 &&
                write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
                fsync(descriptor) == 0 && rename(partial.c_str(), file.c_str()) == 0,
            "write a file");
    const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(directory >= 0 && fsync(directory) == 0, "write the folder down");
}

static std::string snapshot_of(const DeviceState &state)
{
    return make_snapshot(plan_backup(state, no_refusal).snapshot);
}

static void back_up()
{
    const std::string folder = place("IME_BACKUP_CLOUD_STORE");
    const std::string now = std::to_string(g_get_real_time() / G_TIME_SPAN_MILLISECOND);
    Daemon daemon;
    Store store;
    const std::string snapshot = snapshot_of(read_device(daemon, store, SETTINGS));
    write_durably(folder, name_of(find_newest(folder) + 1), encode_record_file({{RECORD_KEY, now, snapshot}}));
}

static void restore(const char *number)
{
    const std::string folder = place("IME_BACKUP_CLOUD_STORE");
    const std::string file =
        folder + name_of(number == nullptr ? find_newest(folder) : static_cast<unsigned>(atoi(number)));
    g_autofree gchar *content = nullptr;
    gsize length = 0;
    require(g_file_get_contents(file.c_str(), &content, &length, nullptr) != FALSE, "read the backup");
    const CloudRecords records = decode_record_file({content, length});
    Daemon daemon;
    Store store;
    const DeviceState state = read_device(daemon, store, ALL_SETTINGS);
    write_durably(place("IME_BACKUP_HOST_DIR"), "/before.json", snapshot_of(state));
    write_device(plan_restore({records.back().value}, state, no_refusal).device, daemon, store);
}

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "backup")
        back_up();
    else if (what == "restore")
        restore(argc > 2 ? argv[2] : nullptr);
    else
        require(false, "do anything but backup and restore");
    return EXIT_SUCCESS;
}
