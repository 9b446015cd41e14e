#include "ime_backup_service_json_parser.h"

#include <cstring>
#include <libintl.h>
#include <string>
#include <string_view>

#include <json-glib/json-glib.h>

#include "ime_backup_settings.h"
#include "isf_control.h"
#include "log.h"
#include "utility.h"
#include "vconf.h"

static JsonObject *get_object(JsonNode *node);
static void restore_settings(JsonObject *snapshot, const scim::ConfigPointer &config, const char *caller);

bool _ime_restore_json_value(const char *value)
{
    if (value == nullptr)
        return false;

    // Opened before the snapshot is parsed: without the configuration, any snapshot is rejected.
    const char *failure = nullptr;
    const scim::ConfigPointer config = open_input_method_config(&failure);
    if (config.null()) {
        LOG_ERROR("%s", failure);
        return false;
    }

    JsonParser *parser = json_parser_new();
    if (parser == nullptr)
        return false;

    // Blank text parses without an error, but has no root.
    JsonNode *root =
        json_parser_load_from_data(parser, value, -1, nullptr) ? json_parser_steal_root(parser) : nullptr;
    if (root == nullptr) {
        LOG_ERROR("json_parser_load_from_data fail");
        g_object_unref(parser);
        return false;
    }

    restore_settings(get_object(root), config, __func__);
    config->flush();
    config->reload();

    json_node_free(root);
    g_object_unref(parser);
    return true;
}

static bool get_boolean(JsonObject *object, const char *name);
static const char *get_string(JsonObject *object, const char *name);
static JsonArray *get_array(JsonObject *object, const char *name);

static void restore_keyboard(const char *keyboard, const char *caller);
static bool restore_languages(const char *key, JsonArray *languages, const char *caller);
static void write_switch(const SettingRow &setting, bool on, const scim::ConfigPointer &config,
                         const char *caller);

static void restore_settings(JsonObject *snapshot, const scim::ConfigPointer &config, const char *caller)
{
    bool handwriting_supported = false; // by a restored language; the table has languages before switches
    for (const SettingRow &setting : SETTINGS) {
        switch (setting.form) {
        case SettingForm::identifier:
            restore_keyboard(get_string(snapshot, setting.member), caller);
            break;
        case SettingForm::languages:
            handwriting_supported =
                restore_languages(setting.key, get_array(snapshot, setting.member), caller);
            break;
        case SettingForm::boolean_switch:
        case SettingForm::integer_switch:
            bool on = get_boolean(snapshot, setting.member);
            if (setting.member == std::string_view(MEMBER_HANDWRITING))
                on = on && handwriting_supported;
            write_switch(setting, on, config, caller);
            break;
        }
    }
}

static void restore_keyboard(const char *keyboard, const char *caller)
{
    if (keyboard == nullptr || *keyboard == '\0')
        return;

    char *current = nullptr;
    isf_control_get_active_ime(&current);
    if (current == nullptr || strcmp(keyboard, current) != 0)
        isf_control_set_active_ime(keyboard);
    else
        LOG_INFO("==== Keep current keyboard ====");
    g_free(current);
}

static const char *read_downloaded_list(const SettingRow &list, const char *caller);

/// Selects the snapshot's languages that are downloaded on this device.
///
/// @return true if a selected language supports handwriting
static bool restore_languages(const char *key, JsonArray *languages, const char *caller)
{
    const char *downloaded = read_downloaded_list(DOWNLOADED_LISTS[0], caller);
    const char *with_handwriting = read_downloaded_list(DOWNLOADED_LISTS[1], caller);

    std::string selection;
    bool handwriting_supported = false;
    const guint count = languages == nullptr ? 0 : json_array_get_length(languages);
    for (guint i = 0; i < count; i++) {
        const char *language = get_string(get_object(json_array_get_element(languages, i)), MEMBER_LANG_ID);
        if (language == nullptr || strstr(downloaded, language) == nullptr)
            continue;
        selection.append(language).push_back(LANGUAGE_DELIMITER);
        if (strstr(with_handwriting, language) != nullptr)
            handwriting_supported = true;
    }

    if (!selection.empty())
        update_vconfkeys(gettext(key), selection.c_str());
    return handwriting_supported;
}

/// Returns the list's text, which is never freed, or an empty text if the list can't be read.
static const char *read_downloaded_list(const SettingRow &list, const char *caller)
{
    const char *text = vconf_get_str(list.key);
    if (text == nullptr) {
        LOG_ERROR("Failed to read %s", list.symbol);
        return "";
    }
    return text;
}

static void write_switch(const SettingRow &setting, bool on, const scim::ConfigPointer &config,
                         const char *caller)
{
    if (setting.place == SettingPlace::settings_store) {
        if (vconf_set_bool(setting.key, on) == -1)
            LOG_ERROR("Failed to set %s", setting.symbol);
    } else if (setting.form == SettingForm::integer_switch) {
        config->write(scim::String(setting.key), on ? 1 : 0);
    } else {
        config->write(scim::String(setting.key), on);
    }
}

// These functions accept a null object, and members that are missing or of another type. JSON-GLib's own
// functions would print warnings.

static JsonNode *get_member(JsonObject *object, const char *name, JsonNodeType type)
{
    JsonNode *node = object == nullptr ? nullptr : json_object_get_member(object, name);
    return node != nullptr && json_node_get_node_type(node) == type ? node : nullptr;
}

static JsonObject *get_object(JsonNode *node)
{
    return JSON_NODE_HOLDS_OBJECT(node) ? json_node_get_object(node) : nullptr;
}

/// As in JSON-GLib, any number except 0 is true. A value that is neither a boolean nor a number is false.
static bool get_boolean(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name, JSON_NODE_VALUE);
    return node != nullptr && json_node_get_boolean(node) != FALSE;
}

static const char *get_string(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name, JSON_NODE_VALUE);
    return node == nullptr ? nullptr : json_node_get_string(node);
}

static JsonArray *get_array(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name, JSON_NODE_ARRAY);
    return node == nullptr ? nullptr : json_node_get_array(node);
}
