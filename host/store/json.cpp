#include "json.h"

#include <algorithm>
#include <cstring>

#include "errors.h"

/// More than any snapshot's, and less than a parser's stack can bear.
static constexpr size_t MAX_DEPTH = 1000;

JsonNode *parse_json(const std::string &text)
{
    if (is_nested_too_deeply(text))
        throw HostError("it is nested too deeply");
    g_autoptr(JsonParser) parser = json_parser_new();
    g_autoptr(GError) error = nullptr;
    if (json_parser_load_from_data(parser, text.data(), static_cast<gssize>(text.size()), &error) == FALSE)
        throw HostError(error->message);
    JsonNode *root = json_parser_steal_root(parser);
    if (root == nullptr)
        throw HostError("it is empty");
    return root;
}

/// Length of the string that `text` begins with, as a parser reads it.
static size_t string_length(const char *text)
{
    size_t length = 1;
    while (text[length] != '\0' && text[length] != '"')
        length += text[length] == '\\' && text[length + 1] != '\0' ? 2 : 1;
    return length + (text[length] == '"' ? 1 : 0);
}

bool is_nested_too_deeply(const std::string &text)
{
    size_t depth = 0;
    size_t deepest = 0;
    // Else a parser may see a comment, say, where a string seems to begin.
    bool plain = text.find('\0') == std::string::npos;
    for (const char *rest = text.c_str(); *rest != '\0';) {
        if (*rest == '"') {
            rest += string_length(rest);
            continue;
        }
        if (*rest == '[' || *rest == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (*rest == ']' || *rest == '}') {
            depth -= depth > 0 ? 1 : 0;
        } else if (g_ascii_isalnum(*rest) == FALSE && strchr(":,+-. \t\r\n", *rest) == nullptr) {
            plain = false;
        }
        rest++;
    }
    if (!plain)
        deepest = static_cast<size_t>(std::count(text.begin(), text.end(), '[') +
                                      std::count(text.begin(), text.end(), '{'));
    return deepest > MAX_DEPTH;
}

JsonNode *get_member(JsonObject *object, const char *name)
{
    return object == nullptr ? nullptr : json_object_get_member(object, name);
}

JsonObject *get_object(JsonNode *node)
{
    return node != nullptr && JSON_NODE_HOLDS_OBJECT(node) ? json_node_get_object(node) : nullptr;
}

JsonArray *get_array(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name);
    return node != nullptr && JSON_NODE_HOLDS_ARRAY(node) ? json_node_get_array(node) : nullptr;
}

static JsonNode *get_value(JsonObject *object, const char *name, GType type)
{
    JsonNode *node = get_member(object, name);
    return node != nullptr && JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == type ? node
                                                                                                    : nullptr;
}

std::optional<std::string> get_text(JsonObject *object, const char *name)
{
    JsonNode *node = get_value(object, name, G_TYPE_STRING);
    const char *text = node == nullptr ? nullptr : json_node_get_string(node);
    // JSON-GLib also reads escapes of any byte.
    if (text == nullptr || g_utf8_validate(text, -1, nullptr) == FALSE)
        return std::nullopt;
    return text;
}

std::optional<gint64> get_integer(JsonObject *object, const char *name)
{
    JsonNode *node = get_value(object, name, G_TYPE_INT64);
    return node == nullptr ? std::nullopt : std::optional(json_node_get_int(node));
}

std::optional<bool> get_boolean(JsonObject *object, const char *name)
{
    JsonNode *node = get_value(object, name, G_TYPE_BOOLEAN);
    return node == nullptr ? std::nullopt : std::optional(json_node_get_boolean(node) != FALSE);
}
