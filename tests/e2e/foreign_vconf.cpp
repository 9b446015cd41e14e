// Replaces the host's settings store with values in memory. A failed vconf_get_bool() also sets its output.

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "vconf.h"

static std::map<std::string, std::string> texts = {{"db/ise/engine/lpm/selected_lang", "de_DE#"}};
static std::map<std::string, bool> switches = {{"db/ise/hand_write", false}};

struct vconf_keylist {
    std::map<std::string, std::string> added;
};

int vconf_get_bool(const char *key, int *value)
{
    const auto found = switches.find(key);
    *value = found != switches.end() && found->second ? 1 : 0;
    return found != switches.end() ? 0 : -1;
}

int vconf_set_bool(const char *key, int value)
{
    switches[key] = value != 0;
    return 0;
}

char *vconf_get_str(const char *key)
{
    return texts.contains(key) ? strdup(texts[key].c_str()) : nullptr;
}

vconf_keylist_handle vconf_keylist_new(void)
{
    return new vconf_keylist;
}

int vconf_get(vconf_keylist_handle, const char *directory, int)
{
    return texts.contains(directory) ? 0 : -1;
}

int vconf_keylist_lookup(vconf_keylist_handle, const char *key, vconf_keynode_handle *node)
{
    *node = reinterpret_cast<vconf_keynode_handle>(texts[key].data());
    return 0;
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    return reinterpret_cast<char *>(node);
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    list->added[key] = value;
    return 0;
}

int vconf_set(vconf_keylist_handle list)
{
    for (const auto &[key, value] : list->added)
        texts[key] = value;
    return 0;
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    delete list;
    return 0;
}
