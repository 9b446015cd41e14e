#include "utility.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "log.h"
#include "vconf.h"

int read_vconfkeys(const char *key, char **value)
{
    vconf_keylist_handle list = vconf_keylist_new();

    if (vconf_get(list, key, VCONF_GET_KEYS) < 0) {
        LOG_ERROR("vconf_get() fails for vconf_key : %s", key);
        vconf_keylist_free(list);
        return VCONFKEY_UNREADABLE;
    }

    vconf_keynode_handle node = nullptr;
    if (vconf_keylist_lookup(list, key, &node) < 0) {
        LOG_ERROR("conf_keylist_lookup() fails for vconf_key : %s", key);
        vconf_keylist_free(list);
        return VCONFKEY_NO_STRING;
    }

    const char *text = vconf_keynode_get_str(node);
    if (text == nullptr) {
        LOG_ERROR("vconf_keynode_get_str() fails for vconf_key : %s", key);
        vconf_keylist_free(list);
        return VCONFKEY_NO_STRING;
    }

    // The node's text is freed with the list.
    *value = static_cast<char *>(malloc(strlen(text) + 1));
    strcpy(*value, text); // NOLINT(clang-analyzer-security.insecureAPI.strcpy): it fits
    vconf_keylist_free(list);
    return VCONFKEY_FOUND;
}

int update_vconfkeys(const char *key, const char *value)
{
    vconf_keylist_handle list = vconf_keylist_new();

    if (vconf_keylist_add_str(list, key, value) < 0) {
        LOG_ERROR("vconf_keylist_add_str() failed ");
        vconf_keylist_free(list);
        return 0;
    }

    if (vconf_set(list) == 0)
        LOG_ERROR("vconf keys for key [%s] updated successfully [%s]", key, value);
    else
        LOG_ERROR("vconf keys for key [%s] not updated", key);
    vconf_keylist_free(list);
    return 1;
}

LanguageList &split(const std::string &text, char delimiter, LanguageList &pieces)
{
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, delimiter);)
        pieces.push_back(piece);
    return pieces;
}

LanguageList split(const std::string &text, char delimiter)
{
    LanguageList pieces;
    return split(text, delimiter, pieces);
}

// Never deleted: the module stays loaded for the rest of the process.
static const scim::ConfigModule *load_config_module()
{
    return new scim::ConfigModule("socket");
}

scim::ConfigPointer open_input_method_config(const char **failure)
{
    const scim::ConfigModule *module = load_config_module();
    if (!module->valid()) {
        *failure = "Can't load config file";
        return {};
    }

    scim::ConfigPointer config = module->create_config();
    if (config.null())
        *failure = "Failed to create Config instance from socket Config module.";
    return config;
}
