// The configuration module "socket", as the device's input-method framework has it. It can be opened any
// number of times in one process, returns an empty handle when the daemon can't be reached, and notes failed
// reads and writes. SCIM's own module does none of this. Linked before libscim-1.0, this library replaces its
// scim::ConfigModule.

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "account.h"
#include "daemon.h"

namespace
{

constexpr SettingPlace PLACE = SettingPlace::configuration;

/// The daemon's configuration. Notes changes and problems in the account. Supports integers, booleans and
/// texts only.
class DaemonConfig : public scim::DummyConfig
{
public:
    bool valid() const override { return true; }
    scim::String get_name() const override { return "socket"; }

    bool read(const scim::String &key, scim::String *value) const override { return get(key, value); }
    bool read(const scim::String &key, int *value) const override { return get(key, value); }
    bool read(const scim::String &key, bool *value) const override { return get(key, value); }

    bool write(const scim::String &key, const scim::String &value) override { return set(key, value); }
    bool write(const scim::String &key, int value) override { return set(key, value); }
    bool write(const scim::String &key, bool value) override { return set(key, value); }

    /// Fails in an exchange: the erase is not noted in the account, so an undo would miss it.
    bool erase(const scim::String &key) override
    {
        return !account().is_started() && with_daemon([&] { daemon->erase(key); });
    }

    bool flush() override
    {
        return with_daemon([this] { daemon->flush(); });
    }

    bool reload() override
    {
        return with_daemon([this] { daemon->reload(); }) && scim::DummyConfig::reload();
    }

private:
    template <class Work>
    static bool with_daemon(Work work)
    {
        return note_problems(PLACE, false, [&] {
            work();
            return true;
        });
    }

    template <class Value>
    bool get(const scim::String &key, Value *value) const
    {
        return note_problems(PLACE, false, [&] {
            const std::optional<Value> stored = daemon->read<Value>(key);
            if (stored)
                *value = *stored;
            return stored.has_value();
        });
    }

    template <class Value>
    bool set(const scim::String &key, const Value &value)
    {
        return with_daemon([&] {
            daemon->write_on_account({PLACE, key, {}, parse_config_text(config_text(value))}, key, value);
        });
    }

    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
};

} // namespace

namespace scim
{

// Nothing is loaded. Of the class's members, m_config_create_config is set only for the module "socket".

static ConfigPointer create_daemon_config()
{
    return note_problems(PLACE, ConfigPointer(), [] { return ConfigPointer(new DaemonConfig); });
}

ConfigModule::ConfigModule(const String &name)
    : m_config_init(nullptr), m_config_create_config(name == "socket" ? create_daemon_config : nullptr)
{
    account().note_call(PLACE);
}

bool ConfigModule::valid() const
{
    return m_config_create_config != nullptr;
}

ConfigPointer ConfigModule::create_config() const
{
    return valid() ? m_config_create_config() : ConfigPointer();
}

} // namespace scim
