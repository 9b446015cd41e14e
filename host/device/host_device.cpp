// The workstation as a device: it keeps its settings in the settings store and the SCIM daemon.

#include "device.h"

#include <algorithm>
#include <dlfcn.h>

#include <glib.h>

#define Uses_SCIM_CONFIG_MODULE
#define Uses_SCIM_CONFIG_BASE
#include <scim.h>

#include "account.h"
#include "daemon.h"
#include "isf_control.h"
#include "settings_store.h"
#include "vconf.h"

static scim::String config_key(const SettingRow &row)
{
    return row.place == SettingPlace::input_method_control ? active_engine() : scim::String(row.key);
}

template <class Function>
static Function *find_function(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

/// Calls a harmless function of the library that the service uses for this place. If that is this host's
/// library, the library notes the call in the account.
static void call_as_service(SettingPlace place)
{
    switch (place) {
    case SettingPlace::settings_store:
        if (auto *make = find_function<decltype(vconf_keylist_new)>("vconf_keylist_new"); make != nullptr)
            find_function<decltype(vconf_keylist_free)>("vconf_keylist_free")(make());
        break;
    case SettingPlace::input_method_control:
        if (auto *get = find_function<decltype(isf_control_get_active_ime)>("isf_control_get_active_ime");
            get != nullptr) {
            char *identifier = nullptr;
            get(&identifier);
            g_free(identifier);
        }
        break;
    case SettingPlace::configuration:
        static_cast<void>(scim::ConfigModule("none")); // no module has this name
        break;
    }
}

namespace
{

class HostDevice : public Device
{
public:
    std::vector<DeviceValue> read(std::span<const SettingRow> rows) override
    {
        std::vector<DeviceValue> values(rows.size());
        std::vector<scim::String> keys;
        for (size_t i = 0; i < rows.size(); i++)
            if (rows[i].place == SettingPlace::settings_store)
                values[i] = SettingsStore::open()->get(rows[i].key);
            else
                keys.push_back(config_key(rows[i]));
        if (keys.empty())
            return values;
        std::vector<DeviceValue> configured = ScimDaemon::connect()->read_values(keys);
        auto next = configured.begin();
        for (size_t i = 0; i < rows.size(); i++)
            if (rows[i].place != SettingPlace::settings_store)
                values[i] = *next++;
        for (size_t i = 0; i < rows.size(); i++) // a numeric identifier was read as a number
            if (rows[i].form == SettingForm::identifier && values[i])
                values[i] = config_text(values[i]);
        return values;
    }

    std::string refuses(const SettingRow &row, const DeviceValue &value) override
    {
        if (!value)
            return "";
        if (row.place == SettingPlace::settings_store)
            return std::holds_alternative<int>(*value)
                       ? std::string("the settings store can't keep a number under ") + row.key
                       : "";
        if (row.form == SettingForm::identifier)
            return is_identifier(config_text(value)) ? "" : "no input method can have this identifier";
        return is_config_text(config_text(value))
                   ? ""
                   : std::string("the configuration can't keep this text under ") + row.key;
    }

    void write(const SettingRow &row, const DeviceValue &value) override
    {
        if (row.place == SettingPlace::settings_store) {
            if (const std::string reason = refuses(row, value); !reason.empty())
                throw ValueError(reason);
            SettingsStore::open()->set({{row.key, value}});
            return;
        }
        // An undo writes back the earlier identifier even if it is not valid.
        if (value && !is_config_text(config_text(value)))
            throw ValueError(refuses(row, value));
        const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
        if (!value)
            daemon->erase(config_key(row));
        else
            std::visit([&](const auto &typed) { daemon->write(config_key(row), typed); }, *value);
    }

    void require_writable(const SettingRow &row) override
    {
        if (row.place == SettingPlace::settings_store)
            SettingsStore::open()->require_writable();
        else
            ScimDaemon::connect()->require_writable();
    }

    void make_durable() override
    {
        SettingsStore::open()->make_durable();
        if (const auto daemon = shared_object<ScimDaemon>.lock(); daemon)
            daemon->make_durable();
    }

    std::string durability_warning() override
    {
        const auto daemon = shared_object<ScimDaemon>.lock();
        return daemon ? daemon->durability_warning() : "";
    }

    bool serves(const SettingRow &row) override
    {
        if (!account().has_call(row.place))
            call_as_service(row.place);
        return account().has_call(row.place);
    }

    std::string daemon_address() override { return scim::scim_get_default_socket_config_address(); }
};

} // namespace

Device *host_device()
{
    static HostDevice device;
    return &device;
}
