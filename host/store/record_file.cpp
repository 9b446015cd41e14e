#include "record_file.h"

#include <glib.h>

#include "errors.h"
#include "json.h"

static constexpr int VERSION = 1;

// A file is this head, the checksum of the records' text, the middle, that text and the tail. So the checksum
// is of bytes that are in the file, and nothing is parsed before they are known to be those that were
// written.
static constexpr char FORMAT[] = "ime-backup-records";
static const std::string HEAD = R"({"format":")" + std::string(FORMAT) + R"(","version":)";
static constexpr char CHECKSUM[] = R"(,"sha256":")";
static constexpr char RECORDS[] = R"(","records":)";
static constexpr char TAIL[] = "}";

static constexpr char CHANGED[] = "it has been changed since it was written, or is cut short";

static JsonNode *make_text(const std::optional<std::string> &text)
{
    return text ? json_node_init_string(json_node_alloc(), text->c_str())
                : json_node_init_null(json_node_alloc());
}

static std::string encode_records(const CloudRecords &records)
{
    JsonArray *array = json_array_new();
    for (const CloudRecord &record : records) {
        JsonObject *element = json_object_new();
        json_object_set_member(element, "key", make_text(record.key));
        json_object_set_member(element, "date", make_text(record.date));
        json_object_set_member(element, "value", make_text(record.value));
        json_array_add_object_element(array, element);
    }
    g_autoptr(JsonNode) node = json_node_init_array(json_node_alloc(), nullptr);
    json_node_take_array(node, array);
    g_autofree gchar *text = json_to_string(node, FALSE);
    return text;
}

static std::string checksum_of(const std::string &text)
{
    g_autofree gchar *checksum =
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.data(), static_cast<gssize>(text.size()));
    return checksum;
}

static std::string frame(const std::string &records)
{
    return HEAD + std::to_string(VERSION) + CHECKSUM + checksum_of(records) + RECORDS + records + TAIL;
}

bool is_record_file(const std::string &content)
{
    if (content.starts_with(HEAD))
        return true;
    try { // it may have been written anew, with spaces in between
        g_autoptr(JsonNode) root = parse_json(content);
        return get_text(get_object(root), "format") == FORMAT;
    } catch (const HostError &) {
        return false;
    }
}

std::string encode_record_file(const CloudRecords &records)
{
    std::string content = frame(encode_records(records));
    if (content.size() > MAX_RECORD_FILE_SIZE)
        throw HostError("the records are more than a record file can hold (" +
                        std::to_string(content.size()) + " bytes)");
    return content;
}

/// The records' text in a file, once it is known to be what was written.
static std::string check(const std::string &content)
{
    const size_t version = HEAD.size();
    if (!content.starts_with(HEAD))
        throw HostError(is_record_file(content) ? CHANGED : "it is no record file");
    const size_t digits = content.find_first_not_of("0123456789", version) - version;
    if (content.compare(version, digits, std::to_string(VERSION)) != 0)
        throw HostError("it is damaged, or was written by a later version of the backup service");

    const size_t records = content.find(RECORDS, version);
    if (records == std::string::npos || !content.ends_with(TAIL))
        throw HostError("it is cut short");
    const size_t begin = records + sizeof RECORDS - 1;
    std::string text = content.substr(begin, content.size() - begin - (sizeof TAIL - 1));
    if (frame(text) != content)
        throw HostError(CHANGED);
    return text;
}

CloudRecords decode_record_file(const std::string &content)
{
    g_autoptr(JsonNode) root = parse_json(check(content));
    if (!JSON_NODE_HOLDS_ARRAY(root))
        throw HostError("it holds no records");
    CloudRecords records;
    for (guint i = 0; i < json_array_get_length(json_node_get_array(root)); i++) {
        JsonObject *element = get_object(json_array_get_element(json_node_get_array(root), i));
        records.push_back({get_text(element, "key"), get_text(element, "date"), get_text(element, "value")});
        // The service will parse it in its turn.
        if (is_nested_too_deeply(records.back().value.value_or("")))
            throw HostError("it holds a record that is nested too deeply");
    }
    return records;
}
