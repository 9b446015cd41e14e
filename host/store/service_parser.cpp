// A library of its own, loaded when it is needed, since JSON-GLib depends on a dozen libraries.

#include "record_file.h"

#include <algorithm>

#include <json-glib/json-glib.h>

/// Texts with more brackets are not parsed: JSON-GLib recurses at each level of nesting, and deep nesting
/// would exhaust the stack.
static constexpr auto MAX_BRACKETS = 1000;

bool service_reads(const char *text)
{
    const std::string_view whole(text);
    if (std::count(whole.begin(), whole.end(), '[') + std::count(whole.begin(), whole.end(), '{') >
        MAX_BRACKETS)
        return true; // the service's parser may accept it
    g_autoptr(JsonParser) parser = json_parser_new();
    return json_parser_load_from_data(parser, text, -1, nullptr) != FALSE &&
           json_parser_get_root(parser) != nullptr;
}
