#include "utility.h"

#include <cstring>
#include <sstream>

#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "log.h"
#include "vconf.h"

int read_vconfkeys(const char *key, char **value)
{
    vconf_keylist_handle list = vconf_keylist_new();

    int found = VCONFKEY_NO_STRING;
    vconf_keynode_handle node = nullptr;
    const char *text = nullptr;
    if (vconf_get(list, key, VCONF_GET_KEYS) < 0) {
        LOG_ERROR("vconf_get() fails for vconf_key : %s", key);
        found = VCONFKEY_UNREADABLE;
    } else if (vconf_keylist_lookup(list, key, &node) < 0) {
        LOG_ERROR("conf_keylist_lookup() fails for vconf_key : %s", key);
    } else if ((text = vconf_keynode_get_str(node)) == nullptr) {
        LOG_ERROR("vconf_keynode_get_str() fails for vconf_key : %s", key);
    } else {
        *value = strdup(text); // the node's text dies with the list
        found = VCONFKEY_FOUND;
    }
    vconf_keylist_free(list);
    return found;
}

int update_vconfkeys(const char *key, const char *value)
{
    vconf_keylist_handle list = vconf_keylist_new();

    const bool added = vconf_keylist_add_str(list, key, value) >= 0;
    if (!added)
        LOG_ERROR("vconf_keylist_add_str() failed ");
    else if (vconf_set(list) == 0)
        LOG_ERROR("vconf keys for key [%s] updated successfully [%s]", key, value);
    else
        LOG_ERROR("vconf keys for key [%s] not updated", key);
    vconf_keylist_free(list);
    return added ? 1 : 0;
}

LanguageList split(const std::string &text, char delimiter)
{
    LanguageList pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, delimiter);)
        pieces.push_back(piece);
    return pieces;
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
