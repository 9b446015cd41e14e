#include "ime_backup_service_json_writer.h"

#include <algorithm>
#include <cstdlib>
#include <libintl.h>

#include <json-glib/json-glib.h>

#include "ime_backup_settings.h"
#include "isf_control.h"
#include "log.h"
#include "vconf.h"

static void add_setting(JsonObject *root, const SettingRow &setting, char *&keyboard,
                        const scim::ConfigPointer &config, const char *caller);
static gchar *generate_text(JsonObject *root, gsize *length);

int _ime_backup_get_json_value(char **value, gsize *length)
{
    if (value == nullptr || length == nullptr) {
        LOG_ERROR("Fail:Invalid Input Parameter");
        return -1;
    }

    const char *failure = nullptr;
    const scim::ConfigPointer config = open_input_method_config(&failure);
    if (config.null()) {
        LOG_ERROR("%s", failure);
        return -1;
    }

    char *keyboard = nullptr;
    const int result = isf_control_get_active_ime(&keyboard);
    if (result <= 0) {
        LOG_ERROR("Failed to get active ime. error: [%d]", result);
        g_free(keyboard);
        return -1;
    }
    LOG_ERROR("get active ime: [%s]", keyboard);

    JsonObject *root = json_object_new();
    for (const SettingRow &setting : SETTINGS)
        add_setting(root, setting, keyboard, config, __func__);

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

static JsonArray *make_language_array();
static bool read_switch(const SettingRow &setting, const scim::ConfigPointer &config, const char *caller);

/// Frees `keyboard` after adding its setting.
static void add_setting(JsonObject *root, const SettingRow &setting, char *&keyboard,
                        const scim::ConfigPointer &config, const char *caller)
{
    switch (setting.form) {
    case SettingForm::identifier:
        json_object_set_string_member(root, setting.member, keyboard);
        g_clear_pointer(&keyboard, g_free);
        break;
    case SettingForm::languages:
        json_object_set_array_member(root, setting.member, make_language_array());
        break;
    case SettingForm::boolean_switch:
    case SettingForm::integer_switch:
        json_object_set_boolean_member(root, setting.member, read_switch(setting, config, caller));
        break;
    }
}

static JsonArray *make_language_array()
{
    JsonArray *array = json_array_new();
    for (const std::string &language : get_selected_lang_list()) {
        JsonObject *element = json_object_new();
        json_object_set_string_member(element, MEMBER_LANG_ID, language.c_str());
        json_array_add_object_element(array, element);
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

/// Returns true for a switch that can't be read.
static bool read_switch(const SettingRow &setting, const scim::ConfigPointer &config, const char *caller)
{
    if (setting.place == SettingPlace::settings_store) {
        int value = 1;
        if (vconf_get_bool(setting.key, &value) == -1)
            LOG_ERROR("Failed to get %s", setting.symbol);
        return value != 0;
    }
    if (setting.form == SettingForm::integer_switch)
        return config->read(scim::String(setting.key), 1) != 0;
    return config->read(scim::String(setting.key), true);
}

/// Takes ownership of `root` and returns it as compact text.
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
