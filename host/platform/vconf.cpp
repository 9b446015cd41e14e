// The settings store's C interface.

#include "vconf.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include <glib.h>

#include "account.h"
#include "errors.h"
#include "settings_store.h"

struct vconf_keynode {
    std::string key;
    DeviceValue value;
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

static constexpr SettingPlace PLACE = SettingPlace::settings_store;

namespace
{

/// The store as one account has it: what a trial stored goes with the account.
struct StoreOfAccount {
    /// Opened when it is first needed.
    std::optional<SettingsStore> store;

    /// Why it can no longer be read, or written. Who could not read does not overwrite.
    std::optional<PlatformError> unreadable;
    std::optional<PlatformError> unwritable;
};

} // namespace

static SettingsStore &open_store(StoreOfAccount &kept)
{
    if (!kept.store)
        kept.store.emplace(account().is_trial() ? Account::Kind::trial : Account::Kind::real,
                           account().is_started() ? SettingsStore::Durability::later
                                                  : SettingsStore::Durability::at_once);
    return *kept.store;
}

/// Reads the store. The first failure is the last attempt: another would wait as long.
template <class Work>
static auto read_store(Work work)
{
    const std::shared_ptr<StoreOfAccount> kept = share_in_account<StoreOfAccount>();
    if (kept->unreadable)
        throw PlatformError(*kept->unreadable);
    try {
        return work(static_cast<const SettingsStore &>(open_store(*kept)));
    } catch (const PlatformError &error) {
        kept->unreadable = kept->unwritable = error;
        throw;
    }
}

template <class Work>
static void write_store(Work work)
{
    const std::shared_ptr<StoreOfAccount> kept = share_in_account<StoreOfAccount>();
    if (kept->unwritable)
        throw PlatformError(*kept->unwritable);
    try {
        work(open_store(*kept));
    } catch (const PlatformError &error) {
        kept->unwritable = error;
        throw;
    }
}

/// Stores values, on the account.
static void set_values(const Settings &settings)
{
    for (const auto &[key, value] : settings)
        account().note(Use::writing, PLACE, key);
    bool is_begun = false;
    std::vector<size_t> changes;
    const auto end_changes = [&](Change::Outcome outcome) {
        for (const size_t change : changes)
            account().end(change, outcome);
    };
    try {
        write_store([&](SettingsStore &store) {
            store.set(settings, [&](const auto &key, const auto &before, const auto &after) {
                is_begun = true;
                changes.push_back(account().begin({PLACE, key, before, after}));
            });
        });
        end_changes(Change::Outcome::made);
    } catch (const PlatformError &) {
        if (!is_begun)
            for (const auto &[key, value] : settings)
                account().refuse({PLACE, key, {}, value});
        end_changes(Change::Outcome::refused);
        throw;
    }
}

static void note(Trouble::Kind kind, const std::string &reason)
{
    account().note({kind, PLACE, reason});
}

/// Does what the C interface asks for; a failure goes to the account.
template <class Work>
static int with_account(Work work)
{
    try {
        return work();
    } catch (const PlatformError &error) {
        note(Trouble::Kind::unusable, error.what());
        return FAILED;
    }
}

static bool is_key(const char *key)
{
    return key != nullptr && *key != '\0' && g_utf8_validate(key, -1, nullptr) != FALSE;
}

/// The value of a key, if it has this type.
template <class Type>
static const Type *value_as(const std::string &key, const DeviceValue &value)
{
    const Type *typed = value ? std::get_if<Type>(&*value) : nullptr;
    if (value && typed == nullptr)
        note(Trouble::Kind::unfit, "the settings store holds a value of another type under " + key);
    return typed;
}

int vconf_get_bool(const char *key, int *value)
{
    if (!is_key(key) || value == nullptr)
        return FAILED;
    account().note(Use::reading, PLACE, key);
    return with_account([&] {
        const DeviceValue stored = read_store([&](const SettingsStore &store) { return store.get(key); });
        const bool *truth = value_as<bool>(key, stored);
        if (truth == nullptr)
            return FAILED;
        *value = *truth ? 1 : 0;
        return DONE;
    });
}

int vconf_set_bool(const char *key, int value)
{
    if (!is_key(key))
        return FAILED;
    return with_account([&] {
        set_values({{key, value != 0}});
        return DONE;
    });
}

char *vconf_get_str(const char *key)
{
    if (!is_key(key))
        return nullptr;
    account().note(Use::reading, PLACE, key);
    char *value = nullptr;
    with_account([&] {
        const DeviceValue stored = read_store([&](const SettingsStore &store) { return store.get(key); });
        if (const auto *text = value_as<std::string>(key, stored); text != nullptr)
            value = strdup(text->c_str());
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
    return with_account([&] {
        const Settings found = read_store([&](const SettingsStore &store) { return store.below(directory); });
        for (const auto &[key, value] : found)
            list->nodes.insert_or_assign(key, vconf_keynode{key, value, false});
        if (!found.contains(directory)) // else it is read with its node
            account().note(Use::reading, PLACE, directory);
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
    if (node == nullptr)
        return nullptr;
    account().note(Use::reading, PLACE, node->key);
    const auto *text = value_as<std::string>(node->key, node->value);
    return text == nullptr ? nullptr : const_cast<char *>(text->c_str());
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    if (!lists().contains(list) || !is_key(key) || value == nullptr ||
        g_utf8_validate(value, -1, nullptr) == FALSE)
        return FAILED;
    list->nodes.insert_or_assign(key, vconf_keynode{key, value, true});
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
    return with_account([&] {
        set_values(added);
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

// What looks at all places of the device alike.

static std::vector<DeviceValue> read_rows(const std::vector<SettingRow> &rows)
{
    return read_store([&](const SettingsStore &store) {
        std::vector<DeviceValue> values;
        for (const SettingRow &row : rows)
            values.push_back(store.get(row.key));
        return values;
    });
}

static void write_row(const SettingRow &row, const DeviceValue &value)
{
    if (value && std::holds_alternative<int>(*value))
        throw ValueError(std::string("the settings store keeps no number under ") + row.key);
    write_store([&](SettingsStore &store) { store.set({{row.key, value}}, [](const auto &...) {}); });
}

static void require_writable()
{
    write_store([](SettingsStore &store) { store.require_writable(); });
}

static void make_durable()
{
    if (share_in_account<StoreOfAccount>()->store) // else nothing was written
        write_store([](SettingsStore &store) { store.make_durable(); });
}

[[maybe_unused]] static const bool registered =
    register_place(PLACE, {read_rows, write_row, require_writable, make_durable});
