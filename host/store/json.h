#pragma once

#include <optional>
#include <string>

#include <json-glib/json-glib.h>

/// JSON text, parsed once it is known that a parser survives it.
///
/// @throws HostError when it is no JSON or is nested too deeply
JsonNode *parse_json(const std::string &text);

/// Whether a parser, which calls itself for each level, would run out of stack on this text.
bool is_nested_too_deeply(const std::string &text);

// Members that may be missing or of another type, of an object that may be null. What is not there is null,
// or nothing.

JsonNode *get_member(JsonObject *object, const char *name);
JsonObject *get_object(JsonNode *node);
JsonArray *get_array(JsonObject *object, const char *name);
std::optional<std::string> get_text(JsonObject *object, const char *name);
std::optional<gint64> get_integer(JsonObject *object, const char *name);
std::optional<bool> get_boolean(JsonObject *object, const char *name);
