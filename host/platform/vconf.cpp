// The C interface of the settings store.

#include "vconf.h"

#include <cstdlib>
#include <cstring>
#include <set>

#include <glib.h>

#include "account.h"
#include "errors.h"
#include "settings_store.h"

struct vconf_keynode {
    DeviceValue value;
    bool added; ///< false if it was read from the store
};

struct vconf_keylist {
    std::map<std::string, vconf_keynode> nodes;
};

/// All valid handles, so that an invalid one can be refused.
static std::set<vconf_keylist_handle> lists;

static constexpr int DONE = 0;
static constexpr int FAILED = -1;

static constexpr SettingPlace PLACE = SettingPlace::settings_store;

/// Does the work of a function of the C interface. Notes a failure of the store in the account.
template <class Work>
static int with_store(Work work)
{
    return note_problems(PLACE, FAILED, [&] { return work(*SettingsStore::open()); });
}

static bool is_key(const char *key)
{
    return key != nullptr && *key != '\0' && g_utf8_validate(key, -1, nullptr) != FALSE;
}

/// Returns the value if it has this type, else null.
template <class Type>
static const Type *value_as(const DeviceValue &value)
{
    return value ? std::get_if<Type>(&*value) : nullptr;
}

int vconf_get_bool(const char *key, int *value)
{
    if (!is_key(key) || value == nullptr)
        return FAILED;
    return with_store([&](SettingsStore &store) {
        const DeviceValue stored = store.get(key);
        const bool *truth = value_as<bool>(stored);
        if (truth == nullptr)
            return FAILED;
        *value = *truth ? 1 : 0;
        return DONE;
    });
}

static int set_values(const Settings &settings)
{
    return with_store([&](SettingsStore &store) {
        store.set(settings);
        return DONE;
    });
}

int vconf_set_bool(const char *key, int value)
{
    return is_key(key) ? set_values({{key, value != 0}}) : FAILED;
}

char *vconf_get_str(const char *key)
{
    if (!is_key(key))
        return nullptr;
    char *value = nullptr;
    with_store([&](SettingsStore &store) {
        const DeviceValue stored = store.get(key);
        if (const auto *text = value_as<std::string>(stored); text != nullptr)
            value = strdup(text->c_str());
        return DONE;
    });
    return value;
}

vconf_keylist_handle vconf_keylist_new(void)
{
    account().note_call(PLACE);
    return *lists.insert(new vconf_keylist).first;
}

int vconf_get(vconf_keylist_handle list, const char *directory, int option)
{
    if (!lists.contains(list) || !is_key(directory) || option != VCONF_GET_KEYS)
        return FAILED;
    return with_store([&](SettingsStore &store) {
        const Settings found = store.below(directory);
        for (const auto &[key, value] : found)
            list->nodes.insert_or_assign(key, vconf_keynode{value, false});
        return found.empty() ? FAILED : DONE;
    });
}

int vconf_keylist_lookup(vconf_keylist_handle list, const char *key, vconf_keynode_handle *node)
{
    if (!lists.contains(list) || key == nullptr || node == nullptr)
        return FAILED;
    const auto found = list->nodes.find(key);
    if (found == list->nodes.end())
        return FAILED;
    *node = &found->second;
    return DONE;
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    if (node == nullptr)
        return nullptr;
    const auto *text = value_as<std::string>(node->value);
    return text == nullptr ? nullptr : const_cast<char *>(text->c_str());
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    if (!lists.contains(list) || !is_key(key) || value == nullptr ||
        g_utf8_validate(value, -1, nullptr) == FALSE)
        return FAILED;
    list->nodes.insert_or_assign(key, vconf_keynode{value, true});
    return DONE;
}

int vconf_set(vconf_keylist_handle list)
{
    if (!lists.contains(list))
        return FAILED;
    // Values that were read are not stored again, since another process may have changed them.
    Settings added;
    for (const auto &[key, node] : list->nodes)
        if (node.added)
            added.emplace(key, node.value);
    return set_values(added);
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    if (lists.erase(list) == 0)
        return FAILED;
    delete list;
    return DONE;
}
