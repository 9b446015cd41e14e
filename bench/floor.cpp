/** @file
 * The floor that the service is measured against: what a backup and a restore can't do without, in one
 * program on the same libraries. It reads the same values, writes the same values as durably, and does
 * nothing between: no log, no report, and no failure that it survives. Before a restore it notes, durably,
 * too, what was set: what can't be undone is no restore.
 *
 * Usage: floor backup | floor restore [NUMBER], with IME_BACKUP_HOST_DIR and IME_BACKUP_CLOUD_STORE set.
 */

#include <algorithm>
#include <array>
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

#include "ime_backup_settings.h"

/// The settings in the order of their table, each as a text: "1" is a switch that is on.
using Values = std::array<std::string, std::size(SETTINGS)>;

static constexpr char HEAD[] = R"({"format":"ime-backup-records","version":1,"sha256":")";
static constexpr char MIDDLE[] = R"(","records":)";
static constexpr char TAIL[] = "}";

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

    std::string get(const char *key)
    {
        if (query == nullptr)
            query = prepare("SELECT value FROM settings WHERE key = ?");
        sqlite3_bind_text(query, 1, key, -1, SQLITE_STATIC);
        require(sqlite3_step(query) == SQLITE_ROW, key);
        std::string value = reinterpret_cast<const char *>(sqlite3_column_text(query, 0));
        sqlite3_reset(query);
        return value;
    }

    void set(const char *key, const char *type, const std::string &value)
    {
        if (update == nullptr)
            update = prepare("INSERT OR REPLACE INTO settings VALUES (?, ?, ?)");
        sqlite3_bind_text(update, 1, key, -1, SQLITE_STATIC);
        sqlite3_bind_text(update, 2, type, -1, SQLITE_STATIC);
        sqlite3_bind_text(update, 3, value.c_str(), -1, SQLITE_STATIC);
        require(sqlite3_step(update) == SQLITE_DONE, key);
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

static Values read_device(Daemon &daemon, Store &store)
{
    Values values;
    auto value = values.begin();
    for (const SettingRow &row : SETTINGS) {
        if (row.place == SettingPlace::settings_store)
            *value = store.get(row.key);
        else if (row.form == SettingForm::identifier)
            *value = daemon.get<scim::String>(scim::SCIM_TRANS_CMD_GET_CONFIG_STRING, key_of(row));
        else
            *value = daemon.get<scim::uint32>(row.form == SettingForm::integer_switch
                                                  ? scim::SCIM_TRANS_CMD_GET_CONFIG_INT
                                                  : scim::SCIM_TRANS_CMD_GET_CONFIG_BOOL,
                                              key_of(row)) != 0
                         ? "1"
                         : "0";
        value++;
    }
    return values;
}

static void write_device(const Values &values, Daemon &daemon, Store &store)
{
    store.run("BEGIN IMMEDIATE");
    auto value = values.begin();
    for (const SettingRow &row : SETTINGS) {
        const scim::uint32 is_on = *value == "1" ? 1 : 0;
        if (row.place == SettingPlace::settings_store)
            store.set(row.key, row.form == SettingForm::languages ? "string" : "bool", *value);
        else if (row.form == SettingForm::identifier)
            daemon.put(scim::SCIM_TRANS_CMD_SET_CONFIG_STRING, key_of(row), *value);
        else
            daemon.put(row.form == SettingForm::integer_switch ? scim::SCIM_TRANS_CMD_SET_CONFIG_INT
                                                               : scim::SCIM_TRANS_CMD_SET_CONFIG_BOOL,
                       key_of(row), is_on);
        value++;
    }
    daemon.put(scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
    store.run("COMMIT");
}

// The snapshot.

static std::string to_text(JsonNode *root)
{
    g_autofree gchar *text = json_to_string(root, FALSE);
    json_node_unref(root);
    return text;
}

static JsonArray *make_languages(const std::string &list)
{
    std::vector<std::string> languages;
    for (size_t begin = 0, end = 0; (end = list.find(LANGUAGE_DELIMITER, begin)) != std::string::npos;
         begin = end + 1)
        languages.push_back(list.substr(begin, end - begin));
    std::sort(languages.begin(), languages.end());
    JsonArray *array = json_array_new();
    for (const std::string &language : languages) {
        JsonObject *element = json_object_new();
        json_object_set_string_member(element, MEMBER_LANG_ID, language.c_str());
        json_array_add_object_element(array, element);
    }
    return array;
}

static std::string make_snapshot(const Values &values)
{
    JsonObject *root = json_object_new();
    auto value = values.begin();
    for (const SettingRow &row : SETTINGS) {
        if (row.form == SettingForm::identifier)
            json_object_set_string_member(root, row.member, value->c_str());
        else if (row.form == SettingForm::languages)
            json_object_set_array_member(root, row.member, make_languages(*value));
        else
            json_object_set_boolean_member(root, row.member, *value == "1");
        value++;
    }
    JsonNode *node = json_node_alloc();
    json_node_init_object(node, root);
    json_object_unref(root);
    return to_text(node);
}

/// The values that a snapshot comes to on this device: only languages that are downloaded are selected, and
/// nothing is written by hand unless one of them can be.
static Values read_snapshot(JsonObject *snapshot, Store &store)
{
    const std::string downloaded = store.get(VCONFKEY_ISE_LPM_DOWNLOADED_LANG);
    const std::string with_handwriting = store.get(VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG);
    bool has_handwriting = false;
    Values values;
    auto value = values.begin();
    for (const SettingRow &row : SETTINGS) {
        if (row.form == SettingForm::identifier) {
            *value = json_object_get_string_member(snapshot, row.member);
        } else if (row.form == SettingForm::languages) {
            JsonArray *languages = json_object_get_array_member(snapshot, row.member);
            for (guint i = 0; i < json_array_get_length(languages); i++) {
                const char *language = json_object_get_string_member(
                    json_array_get_object_element(languages, i), MEMBER_LANG_ID);
                if (strstr(downloaded.c_str(), language) == nullptr)
                    continue;
                value->append(language).push_back(LANGUAGE_DELIMITER);
                has_handwriting = has_handwriting || strstr(with_handwriting.c_str(), language) != nullptr;
            }
        } else {
            const bool is_on = json_object_get_boolean_member(snapshot, row.member) != FALSE &&
                               (has_handwriting || strcmp(row.member, MEMBER_HANDWRITING) != 0);
            *value = is_on ? "1" : "0";
        }
        value++;
    }
    return values;
}

// The record file, and the folder of backups.

static std::string checksum_of(const char *text, size_t length)
{
    g_autofree gchar *checksum =
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, text, static_cast<gssize>(length));
    return checksum;
}

static std::string make_record_file(const std::string &snapshot)
{
    JsonObject *record = json_object_new();
    json_object_set_string_member(record, "key", "0");
    json_object_set_string_member(record, "date",
                                  std::to_string(g_get_real_time() / G_TIME_SPAN_MILLISECOND).c_str());
    json_object_set_string_member(record, "value", snapshot.c_str());
    JsonArray *array = json_array_new();
    json_array_add_object_element(array, record);
    JsonNode *node = json_node_alloc();
    json_node_init_array(node, array);
    json_array_unref(array);
    const std::string records = to_text(node);
    return HEAD + checksum_of(records.data(), records.size()) + MIDDLE + records + TAIL;
}

/// The snapshot in the only record of a file.
static std::string read_record_file(const std::string &content)
{
    const size_t middle = content.find(MIDDLE);
    const size_t begin = middle + strlen(MIDDLE);
    require(content.starts_with(HEAD) && middle != std::string::npos && content.ends_with(TAIL),
            "find the records");
    const size_t length = content.size() - begin - strlen(TAIL);
    require(content.substr(strlen(HEAD), middle - strlen(HEAD)) ==
                checksum_of(content.data() + begin, length),
            "trust the backup");
    g_autoptr(JsonParser) parser = json_parser_new();
    require(json_parser_load_from_data(parser, content.data() + begin, static_cast<gssize>(length),
                                       nullptr) != FALSE,
            "parse the records");
    JsonArray *records = json_node_get_array(json_parser_get_root(parser));
    return json_object_get_string_member(json_array_get_object_element(records, 0), "value");
}

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

static void back_up()
{
    const std::string folder = place("IME_BACKUP_CLOUD_STORE");
    Daemon daemon;
    Store store;
    const std::string content = make_record_file(make_snapshot(read_device(daemon, store)));
    write_durably(folder, name_of(find_newest(folder) + 1), content);
}

static void restore(const char *number)
{
    const std::string folder = place("IME_BACKUP_CLOUD_STORE");
    const std::string file =
        folder + name_of(number == nullptr ? find_newest(folder) : static_cast<unsigned>(atoi(number)));
    g_autofree gchar *content = nullptr;
    gsize length = 0;
    require(g_file_get_contents(file.c_str(), &content, &length, nullptr) != FALSE, "read the backup");
    const std::string snapshot = read_record_file({content, length});
    g_autoptr(JsonParser) parser = json_parser_new();
    require(json_parser_load_from_data(parser, snapshot.data(), -1, nullptr) != FALSE, "parse the snapshot");
    Daemon daemon;
    Store store;
    write_durably(place("IME_BACKUP_HOST_DIR"), "/before.json", make_snapshot(read_device(daemon, store)));
    write_device(read_snapshot(json_node_get_object(json_parser_get_root(parser)), store), daemon, store);
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
