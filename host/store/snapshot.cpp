#include "snapshot.h"

#include <algorithm>

#include <glib.h>

#include "cloud_store.h"
#include "json.h"

std::vector<std::string> split_languages(const std::string &list)
{
    std::vector<std::string> languages;
    const char delimiter[] = {LANGUAGE_DELIMITER, '\0'};
    g_auto(GStrv) pieces = g_strsplit(list.c_str(), delimiter, -1);
    for (gchar **piece = pieces; *piece != nullptr; piece++)
        if (**piece != '\0')
            languages.emplace_back(*piece);
    return languages;
}

static std::vector<std::string> read_languages(JsonObject *snapshot, const char *member)
{
    std::vector<std::string> languages;
    JsonArray *array = get_array(snapshot, member);
    for (guint i = 0; array != nullptr && i < json_array_get_length(array); i++)
        if (const auto language = get_text(get_object(json_array_get_element(array, i)), MEMBER_LANG_ID);
            language)
            languages.push_back(*language);
    return languages;
}

static DeviceValue read_list(JsonObject *snapshot, const char *member)
{
    if (get_array(snapshot, member) == nullptr)
        return std::nullopt;
    std::string list;
    for (const std::string &language : read_languages(snapshot, member))
        list += language + LANGUAGE_DELIMITER;
    return list;
}

static DeviceValue read_member(JsonObject *snapshot, const SettingRow &row)
{
    if (row.form == SettingForm::languages)
        return read_list(snapshot, row.member);
    if (row.form == SettingForm::identifier) {
        const auto text = get_text(snapshot, row.member);
        return text ? DeviceValue(*text) : std::nullopt;
    }
    JsonNode *node = get_member(snapshot, row.member);
    if (node == nullptr || !JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) == G_TYPE_STRING)
        return std::nullopt;
    const bool is_on = json_node_get_boolean(node) != FALSE; // a number, too, as the service has it
    return row.form == SettingForm::integer_switch ? DeviceValue(is_on ? 1 : 0) : DeviceValue(is_on);
}

Snapshot read_snapshot(const std::string &text)
{
    Snapshot values(std::size(SETTINGS));
    g_autoptr(JsonNode) root = nullptr;
    try {
        root = parse_json(text);
    } catch (const HostError &) {
        return values;
    }
    std::transform(std::begin(SETTINGS), std::end(SETTINGS), values.begin(),
                   [&](const SettingRow &row) { return read_member(get_object(root), row); });
    return values;
}

std::vector<std::string> texts_in(const std::string &text, const SettingRow &row)
{
    g_autoptr(JsonNode) root = nullptr;
    try {
        root = parse_json(text);
    } catch (const HostError &) {
        return {};
    }
    if (row.form == SettingForm::languages)
        return read_languages(get_object(root), row.member);
    const std::string identifier = get_text(get_object(root), row.member).value_or("");
    return identifier.empty() ? std::vector<std::string>() : std::vector<std::string>{identifier};
}

bool is_snapshot(const std::string &text)
{
    try {
        g_autoptr(JsonNode) root = parse_json(text);
        return get_object(root) != nullptr;
    } catch (const HostError &) {
        return false;
    }
}

std::string snapshot_in(const CloudRecords &records)
{
    if (records.empty())
        throw DamagedError("it holds no record");
    for (const CloudRecord &record : records)
        if (!is_snapshot(record.value.value_or("")))
            throw DamagedError("record \"" + record.key.value_or("") + "\" holds no snapshot");
    return *records.back().value;
}

bool is_same_value(const SettingRow &row, const DeviceValue &one, const DeviceValue &other)
{
    const auto is_list = [&](const DeviceValue &value) {
        return row.form == SettingForm::languages && value && std::holds_alternative<std::string>(*value);
    };
    const auto sort = [](const DeviceValue &value) {
        std::vector<std::string> languages = split_languages(std::get<std::string>(*value));
        std::sort(languages.begin(), languages.end());
        return languages;
    };
    return is_list(one) && is_list(other) ? sort(one) == sort(other) : one == other;
}

bool is_same_snapshot(const Snapshot &one, const Snapshot &other)
{
    for (size_t i = 0; i < std::size(SETTINGS); i++)
        if (!is_same_value(SETTINGS[i], one[i], other[i]))
            return false;
    return true;
}

/// What is odd about one member, or an empty text.
static std::string find_oddity(JsonObject *snapshot, const SettingRow &row)
{
    JsonNode *node = get_member(snapshot, row.member);
    if (node == nullptr)
        return std::string("it has no ") + row.member;
    const bool is_switch = row.form == SettingForm::boolean_switch || row.form == SettingForm::integer_switch;
    if (!read_member(snapshot, row) || (is_switch && json_node_get_value_type(node) != G_TYPE_BOOLEAN))
        return std::string(row.member) + " is of another type than a backup's";
    if (row.form != SettingForm::languages)
        return "";
    const auto read = split_languages(std::get<std::string>(*read_list(snapshot, row.member)));
    return read.size() == json_array_get_length(json_node_get_array(node))
               ? ""
               : std::string(row.member) + " has elements that are no languages";
}

std::vector<std::string> find_oddities(const std::string &text)
{
    g_autoptr(JsonNode) root = parse_json(text);
    JsonObject *snapshot = get_object(root);
    if (snapshot == nullptr)
        throw HostError("it is no JSON object");
    std::vector<std::string> oddities;
    for (const SettingRow &row : SETTINGS)
        if (const std::string oddity = find_oddity(snapshot, row); !oddity.empty())
            oddities.push_back(oddity);
    g_autoptr(GList) members = json_object_get_members(snapshot);
    for (const GList *member = members; member != nullptr; member = member->next) {
        const auto *name = static_cast<const char *>(member->data);
        if (std::none_of(std::begin(SETTINGS), std::end(SETTINGS),
                         [&](const SettingRow &row) { return g_str_equal(row.member, name) != FALSE; }))
            oddities.push_back(std::string("it has a \"") + name + "\", which is no setting");
    }
    return oddities;
}
