#include "record_file.h"

#include <memory>

#include <json-glib/json-glib.h>

#include "state.h"

static constexpr char FORMAT[] = "ime-backup-records";
static constexpr int VERSION = 1;
/// More than any snapshot's, and less than a parser's stack can bear.
static constexpr int MAX_DEPTH = 1000;

using Text = std::unique_ptr<gchar, decltype(&g_free)>;

static JsonNode *make_text(const std::optional<std::string> &text)
{
    return text ? json_node_init_string(json_node_alloc(), text->c_str())
                : json_node_init_null(json_node_alloc());
}

static JsonArray *make_array(const CloudRecords &records)
{
    JsonArray *array = json_array_new();
    for (const CloudRecord &record : records) {
        JsonObject *element = json_object_new();
        json_object_set_member(element, "key", make_text(record.key));
        json_object_set_member(element, "date", make_text(record.date));
        json_object_set_member(element, "value", make_text(record.value));
        json_array_add_object_element(array, element);
    }
    return array;
}

std::string encode_record_file(const CloudRecords &records)
{
    g_autoptr(JsonNode) array = json_node_init_array(json_node_alloc(), nullptr);
    json_node_take_array(array, make_array(records));
    const Text text(json_to_string(array, FALSE), g_free);
    const Text checksum(g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.get(), -1), g_free);

    g_autoptr(JsonNode) root = json_node_init_object(json_node_alloc(), nullptr);
    json_node_take_object(root, json_object_new());
    JsonObject *members = json_node_get_object(root);
    json_object_set_string_member(members, "format", FORMAT);
    json_object_set_int_member(members, "version", VERSION);
    json_object_set_string_member(members, "sha256", checksum.get());
    json_object_set_member(members, "records", g_steal_pointer(&array));
    return Text(json_to_string(root, FALSE), g_free).get();
}

static JsonNode *value_node(JsonObject *object, const char *name, GType type)
{
    JsonNode *node = json_object_get_member(object, name);
    return node != nullptr && JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == type ? node
                                                                                                    : nullptr;
}

static std::optional<std::string> read_text(JsonObject *object, const char *name)
{
    JsonNode *node = value_node(object, name, G_TYPE_STRING);
    return node == nullptr ? std::nullopt : std::optional<std::string>(json_node_get_string(node));
}

/// The document's members, once it is known to be a record file of this version.
static JsonObject *check_head(JsonNode *root)
{
    JsonObject *members =
        root != nullptr && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
    if (members == nullptr || read_text(members, "format") != FORMAT)
        throw HostError("it is no record file");
    JsonNode *node = value_node(members, "version", G_TYPE_INT64);
    const gint64 version = node == nullptr ? 0 : json_node_get_int(node);
    if (version > VERSION)
        throw HostError("it was written by a later version of the backup service (format version " +
                        std::to_string(version) + ", this one reads up to " + std::to_string(VERSION) + ")");
    return members;
}

/// JSON-GLib's parser calls itself for each level, and runs out of stack on a text made for that. This counts
/// the brackets in strings, too: the records' values will be parsed in their turn.
static bool is_nested_too_deeply(const std::string &content)
{
    int depth = 0;
    for (const char character : content) {
        if (character == '[' || character == '{')
            depth++;
        else if (depth > 0 && (character == ']' || character == '}'))
            depth--;
        if (depth > MAX_DEPTH)
            return true;
    }
    return false;
}

CloudRecords decode_record_file(const std::string &content)
{
    if (is_nested_too_deeply(content))
        throw HostError("it is no record file");
    g_autoptr(JsonParser) parser = json_parser_new_immutable();
    g_autoptr(GError) error = nullptr;
    if (json_parser_load_from_data(parser, content.data(), static_cast<gssize>(content.size()), &error) ==
        FALSE)
        throw HostError(std::string("it is damaged or cut short: ") + error->message);
    JsonObject *members = check_head(json_parser_get_root(parser));

    CloudRecords records;
    JsonNode *array = json_object_get_member(members, "records");
    const guint count = array != nullptr && JSON_NODE_HOLDS_ARRAY(array)
                            ? json_array_get_length(json_node_get_array(array))
                            : 0;
    for (guint i = 0; i < count; i++) {
        JsonNode *node = json_array_get_element(json_node_get_array(array), i);
        if (!JSON_NODE_HOLDS_OBJECT(node))
            throw HostError("it is damaged");
        JsonObject *element = json_node_get_object(node);
        records.push_back(
            {read_text(element, "key"), read_text(element, "date"), read_text(element, "value")});
    }

    // There is one way to write these records down, checksum included.
    if (encode_record_file(records) != content)
        throw HostError("it has been changed since it was written");
    return records;
}

std::string read_record_file(GFile *file)
{
    g_autoptr(GError) error = nullptr;
    g_autoptr(GFileInfo) info =
        g_file_query_info(file, G_FILE_ATTRIBUTE_STANDARD_TYPE "," G_FILE_ATTRIBUTE_STANDARD_SIZE,
                          G_FILE_QUERY_INFO_NONE, nullptr, &error);
    if (info == nullptr)
        throw HostError(error->message);
    if (g_file_info_get_file_type(info) != G_FILE_TYPE_REGULAR)
        throw HostError("it is no file");
    if (g_file_info_get_size(info) > static_cast<goffset>(MAX_RECORD_FILE_SIZE))
        throw HostError("it is larger than any record file (" + std::to_string(g_file_info_get_size(info)) +
                        " bytes)");

    char *data = nullptr;
    gsize length = 0;
    if (g_file_load_contents(file, nullptr, &data, &length, nullptr, &error) == FALSE)
        throw HostError(error->message);
    const Text owner(data, g_free);
    return {data, length};
}
