// The settings store's C interface.

#include "vconf.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

#include <glib.h>

#include "settings_store.h"
#include "state.h"

struct vconf_keynode {
    SettingValue value;
    bool added; ///< rather than fetched from the store
};

struct vconf_keylist {
    std::map<std::string, vconf_keynode> nodes;
};

/// The lists that are alive, so that a bad handle is refused.
static std::set<vconf_keylist_handle> &lists()
{
    static std::set<vconf_keylist_handle> alive;
    return alive;
}

static constexpr int DONE = 0;
static constexpr int FAILED = -1;

/// The process's store, opened when it is first needed.
static SettingsStore &open_store()
{
    static std::unique_ptr<SettingsStore> store;
    if (!store)
        store = std::make_unique<SettingsStore>();
    return *store;
}

/// Says once why the store doesn't work.
static void report(const StateError &error)
{
    static bool reported = false;
    if (!std::exchange(reported, true))
        g_printerr("libvconf: %s\n", error.what());
}

template <class Work>
static int with_store(Work work)
{
    try {
        return work(open_store());
    } catch (const StateError &error) {
        report(error);
        return FAILED;
    }
}

static bool is_key(const char *key)
{
    return key != nullptr && *key != '\0' && g_utf8_validate(key, -1, nullptr) != FALSE;
}

int vconf_get_bool(const char *key, int *value)
{
    if (!is_key(key) || value == nullptr)
        return FAILED;
    return with_store([&](const SettingsStore &store) {
        const auto stored = store.get(key);
        if (!stored || !std::holds_alternative<bool>(*stored))
            return FAILED;
        *value = std::get<bool>(*stored) ? 1 : 0;
        return DONE;
    });
}

int vconf_set_bool(const char *key, int value)
{
    if (!is_key(key))
        return FAILED;
    return with_store([&](SettingsStore &store) {
        store.set({{key, value != 0}});
        return DONE;
    });
}

char *vconf_get_str(const char *key)
{
    char *value = nullptr;
    if (is_key(key))
        with_store([&](const SettingsStore &store) {
            const auto stored = store.get(key);
            if (!stored || !std::holds_alternative<std::string>(*stored))
                return FAILED;
            value = strdup(std::get<std::string>(*stored).c_str());
            return DONE;
        });
    return value;
}

vconf_keylist_handle vconf_keylist_new(void)
{
    return *lists().insert(new vconf_keylist).first;
}

int vconf_get(vconf_keylist_handle list, const char *directory, int option)
{
    if (!lists().contains(list) || !is_key(directory) || option != VCONF_GET_KEYS)
        return FAILED;
    return with_store([&](const SettingsStore &store) {
        const Settings found = store.below(directory);
        for (const auto &[key, value] : found)
            list->nodes.insert_or_assign(key, vconf_keynode{value, false});
        return found.empty() ? FAILED : DONE;
    });
}

int vconf_keylist_lookup(vconf_keylist_handle list, const char *key, vconf_keynode_handle *node)
{
    if (!lists().contains(list) || key == nullptr || node == nullptr)
        return FAILED;
    const auto found = list->nodes.find(key);
    if (found == list->nodes.end())
        return FAILED;
    *node = &found->second;
    return DONE;
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    auto *text = node == nullptr ? nullptr : std::get_if<std::string>(&node->value);
    return text == nullptr ? nullptr : text->data();
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    if (!lists().contains(list) || !is_key(key) || value == nullptr ||
        g_utf8_validate(value, -1, nullptr) == FALSE)
        return FAILED;
    list->nodes.insert_or_assign(key, vconf_keynode{value, true});
    return DONE;
}

int vconf_set(vconf_keylist_handle list)
{
    if (!lists().contains(list))
        return FAILED;
    // What was only fetched is not stored again: another process may have changed it since.
    Settings added;
    for (const auto &[key, node] : list->nodes)
        if (node.added)
            added.emplace(key, node.value);
    return with_store([&](SettingsStore &store) {
        store.set(added);
        return DONE;
    });
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    if (lists().erase(list) == 0)
        return FAILED;
    delete list;
    return DONE;
}
