#include "ime_backup_service_json_parser.h"

#include <cstring>
#include <libintl.h>
#include <string>

#include <json-glib/json-glib.h>

#include "isf_control.h"
#include "log.h"
#include "settings.h"
#include "utility.h"
#include "vconf.h"

static JsonObject *get_object(JsonNode *node);
static gboolean get_boolean(JsonObject *object, const char *name);
static const char *get_string(JsonObject *object, const char *name);
static JsonArray *get_array(JsonObject *object, const char *name);

static void restore_keyboard(JsonObject *snapshot, const char *caller);
static bool restore_languages(JsonArray *languages, const char *caller);
static void restore_config_values(JsonObject *snapshot, const scim::ConfigPointer &config);

bool _ime_restore_json_value(const char *value)
{
    if (value == nullptr)
        return false;

    // Opened before the snapshot is parsed: without it, even a well-formed one is rejected.
    const scim::ConfigPointer config = open_input_method_config(HERE);
    if (config.null())
        return false;

    JsonParser *parser = json_parser_new();
    if (parser == nullptr)
        return false;

    // Blank text parses, but to no root.
    JsonNode *root =
        json_parser_load_from_data(parser, value, -1, nullptr) ? json_parser_steal_root(parser) : nullptr;
    if (root == nullptr) {
        LOG_ERROR("json_parser_load_from_data fail");
        g_object_unref(parser);
        return false;
    }
    JsonObject *snapshot = get_object(root);

    restore_keyboard(snapshot, __func__);

    gboolean handwriting = get_boolean(snapshot, MEMBER_HANDWRITING);
    JsonArray *languages = get_array(snapshot, MEMBER_SELECTED_LANG);
    const bool handwriting_supported = restore_languages(languages, __func__);
    if (handwriting == TRUE && !handwriting_supported)
        handwriting = FALSE;

    if (vconf_set_bool(VCONFKEY_ISE_HANDWRITING_VAL, handwriting) == -1)
        LOG_ERROR("Failed to set VCONFKEY_ISE_HANDWRITING_VAL");
    if (vconf_set_bool(VCONFKEY_ISE_PREDICTION_VAL, get_boolean(snapshot, MEMBER_PREDICTION)) == -1)
        LOG_ERROR("Failed to set VCONFKEY_ISE_PREDICTION_VAL");
    restore_config_values(snapshot, config);

    json_node_free(root);
    g_object_unref(parser);
    return true;
}

static void restore_keyboard(JsonObject *snapshot, const char *caller)
{
    const char *keyboard = get_string(snapshot, MEMBER_DEFAULT_KEYBOARD);
    if (keyboard == nullptr || *keyboard == '\0')
        return;

    char *current = nullptr;
    isf_control_get_active_ime(&current);
    if (current == nullptr || strcmp(keyboard, current) != 0)
        isf_control_set_active_ime(keyboard);
    else
        LOG_INFO_AS(caller, "==== Keep current keyboard ====");
    g_free(current);
}

/// Selects those of the snapshot's languages that are downloaded on this device.
///
/// @return whether one of them can be written by hand
static bool restore_languages(JsonArray *languages, const char *caller)
{
    const guint count = languages == nullptr ? 0 : json_array_get_length(languages);

    // Neither text is freed.
    const char *downloaded = vconf_get_str(VCONFKEY_ISE_LPM_DOWNLOADED_LANG);
    if (downloaded == nullptr) {
        LOG_ERROR_AS(caller, "Failed to read VCONFKEY_ISE_LPM_DOWNLOADED_LANG");
        downloaded = "";
    }
    const char *with_handwriting = vconf_get_str(VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG);
    if (with_handwriting == nullptr) {
        LOG_ERROR_AS(caller, "Failed to read VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG");
        with_handwriting = "";
    }

    std::string selection;
    bool handwriting_supported = false;
    for (guint i = 0; i < count; i++) {
        const char *language = get_string(get_object(json_array_get_element(languages, i)), MEMBER_LANG_ID);
        if (language == nullptr || strstr(downloaded, language) == nullptr)
            continue;
        selection.append(language).push_back(LANGUAGE_DELIMITER);
        if (strstr(with_handwriting, language) != nullptr)
            handwriting_supported = true;
    }

    if (!selection.empty())
        update_vconfkeys(gettext(VCONFKEY_ISE_LPM_SELECTED_LANG), selection.c_str());
    return handwriting_supported;
}

static void restore_config_values(JsonObject *snapshot, const scim::ConfigPointer &config)
{
    const auto write_integer = [&](const char *member, const char *key) {
        config->write(scim::String(key), static_cast<int>(get_boolean(snapshot, member)));
    };

    write_integer(MEMBER_AUTO_SPACE, CONFIG_AUTO_SPACING);
    write_integer(MEMBER_AUTO_CAPITALIZE, CONFIG_AUTO_CAPITALIZATION);
    // A gboolean is an int: without the comparison this would be an integer key like the others.
    config->write(scim::String(CONFIG_AUTO_PUNCTUATE), get_boolean(snapshot, MEMBER_AUTO_PUNCTUATION) != 0);
    write_integer(MEMBER_KEY_TAP_SOUND, CONFIG_KEY_SOUNDS);
    write_integer(MEMBER_KEY_TAP_VIB, CONFIG_KEY_VIBRATION);

    config->flush();
    config->reload();
}

// Readers of members that may be missing or of another type, of an object that may be null: JSON-GLib's own
// warn about both.

static JsonNode *get_member(JsonObject *object, const char *name)
{
    return object == nullptr ? nullptr : json_object_get_member(object, name);
}

static bool holds_value(JsonNode *node, GType type)
{
    return node != nullptr && JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == type;
}

static JsonObject *get_object(JsonNode *node)
{
    return JSON_NODE_HOLDS_OBJECT(node) ? json_node_get_object(node) : nullptr;
}

static gboolean get_boolean(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name);
    return holds_value(node, G_TYPE_BOOLEAN) ? json_node_get_boolean(node) : FALSE;
}

static const char *get_string(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name);
    return holds_value(node, G_TYPE_STRING) ? json_node_get_string(node) : nullptr;
}

static JsonArray *get_array(JsonObject *object, const char *name)
{
    JsonNode *node = get_member(object, name);
    return node != nullptr && JSON_NODE_HOLDS_ARRAY(node) ? json_node_get_array(node) : nullptr;
}
