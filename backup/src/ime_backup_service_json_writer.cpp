#include "ime_backup_service_json_writer.h"

#include <algorithm>
#include <cstdlib>
#include <libintl.h>

#include <json-glib/json-glib.h>

#include "isf_control.h"
#include "log.h"
#include "settings.h"
#include "vconf.h"

static JsonArray *make_language_array();
static void add_settings_store_values(JsonObject *root, const char *caller);
static void add_config_values(JsonObject *root, const scim::ConfigPointer &config);
static gchar *generate_text(JsonObject *root, gsize *length);

int _ime_backup_get_json_value(char **value, gsize *length)
{
    if (value == nullptr || length == nullptr) {
        LOG_ERROR("Fail:Invalid Input Parameter");
        return -1;
    }

    const scim::ConfigPointer config = open_input_method_config(HERE);
    if (config.null())
        return -1;

    char *keyboard = nullptr;
    const int result = isf_control_get_active_ime(&keyboard);
    if (result <= 0) {
        LOG_ERROR("Failed to get active ime. error: [%d]", result);
        g_free(keyboard);
        return -1;
    }
    LOG_ERROR("get active ime: [%s]", keyboard);

    // The members' order is part of the format.
    JsonObject *root = json_object_new();
    json_object_set_string_member(root, MEMBER_DEFAULT_KEYBOARD, keyboard);
    g_free(keyboard);
    json_object_set_array_member(root, MEMBER_SELECTED_LANG, make_language_array());
    add_settings_store_values(root, __func__);
    add_config_values(root, config);

    gsize text_length = 0;
    gchar *text = generate_text(root, &text_length);
    if (!g_utf8_validate(text, -1, nullptr)) {
        LOG_ERROR("Fail: Data in invalid format");
        g_free(text);
        return -1;
    }

    *value = g_strdup(text);
    *length = text_length;
    g_free(text);
    return 0;
}

static JsonArray *make_language_array()
{
    JsonArray *array = json_array_new();
    for (const std::string &language : get_selected_lang_list()) {
        JsonObject *element = json_object_new();
        json_object_set_string_member(element, MEMBER_LANG_ID, language.c_str());
        JsonNode *node = json_node_new(JSON_NODE_OBJECT);
        json_node_take_object(node, element);
        json_array_add_element(array, node);
    }
    return array;
}

LanguageList get_selected_lang_list()
{
    char *stored = nullptr;
    const char *value = nullptr;
    if (read_vconfkeys(gettext(VCONFKEY_ISE_LPM_SELECTED_LANG), &stored) == VCONFKEY_UNREADABLE) {
        const char *key = gettext(VCONFKEY_ISE_LPM_SELECTED_LANG);
        update_vconfkeys(key, gettext(DEFAULT_SELECTED_LANG));
        value = gettext(DEFAULT_SELECTED_LANG);
    } else {
        value = stored;
    }
    if (value == nullptr)
        return {};

    LanguageList languages = split(value, LANGUAGE_DELIMITER);
    std::sort(languages.begin(), languages.end());
    free(stored);
    return languages;
}

static void add_settings_store_values(JsonObject *root, const char *caller)
{
    int value = 1;
    if (vconf_get_bool(VCONFKEY_ISE_HANDWRITING_VAL, &value) == -1)
        LOG_ERROR_AS(caller, "Failed to get VCONFKEY_ISE_HANDWRITING_VAL");
    json_object_set_boolean_member(root, MEMBER_HANDWRITING, value);

    value = 1;
    if (vconf_get_bool(VCONFKEY_ISE_PREDICTION_VAL, &value) == -1)
        LOG_ERROR_AS(caller, "Failed to get VCONFKEY_ISE_PREDICTION_VAL");
    json_object_set_boolean_member(root, MEMBER_PREDICTION, value);
}

static void add_config_values(JsonObject *root, const scim::ConfigPointer &config)
{
    const auto add_integer = [&](const char *member, const char *key) {
        json_object_set_boolean_member(root, member, config->read(scim::String(key), 1) != 0);
    };

    add_integer(MEMBER_AUTO_SPACE, CONFIG_AUTO_SPACING);
    add_integer(MEMBER_AUTO_CAPITALIZE, CONFIG_AUTO_CAPITALIZATION);
    json_object_set_boolean_member(root, MEMBER_AUTO_PUNCTUATION,
                                   config->read(scim::String(CONFIG_AUTO_PUNCTUATE), true));
    add_integer(MEMBER_KEY_TAP_SOUND, CONFIG_KEY_SOUNDS);
    add_integer(MEMBER_KEY_TAP_VIB, CONFIG_KEY_VIBRATION);
}

/// Takes over `root` and turns it into compact text.
static gchar *generate_text(JsonObject *root, gsize *length)
{
    JsonGenerator *generator = json_generator_new();
    JsonNode *node = json_node_new(JSON_NODE_OBJECT);
    json_node_take_object(node, root);
    json_generator_set_root(generator, node);
    gchar *text = json_generator_to_data(generator, length);
    json_node_free(node);
    g_object_unref(generator);
    return text;
}
