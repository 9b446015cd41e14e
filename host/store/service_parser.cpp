// Apart from the rest, and loaded when it is needed: JSON-GLib brings a dozen libraries along.

#include "record_file.h"

#include <algorithm>

#include <json-glib/json-glib.h>

/// JSON-GLib calls itself for each level. No text that is nested deeper has as few brackets.
static constexpr auto MAX_BRACKETS = 1000;

bool service_reads(const char *text)
{
    const std::string_view whole(text);
    if (std::count(whole.begin(), whole.end(), '[') + std::count(whole.begin(), whole.end(), '{') >
        MAX_BRACKETS)
        return true; // as far as it is known
    g_autoptr(JsonParser) parser = json_parser_new();
    return json_parser_load_from_data(parser, text, -1, nullptr) != FALSE &&
           json_parser_get_root(parser) != nullptr;
}
