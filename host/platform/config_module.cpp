// What the input-method framework promises of the configuration module "socket" and the stock library doesn't
// keep: it can be opened any number of times in one process, a configuration that can't be reached is an
// empty handle, and what could not be read or written is known. Linked before libscim-1.0, this takes the
// place of its scim::ConfigModule.

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "account.h"
#include "daemon.h"

namespace
{

constexpr SettingPlace PLACE = SettingPlace::configuration;

/// The daemon's configuration, on the account. It has no values but integers, booleans and texts.
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

    /// Not in an exchange, whose history could not put back what is erased.
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
        return with_account(PLACE, false, [&] {
            work();
            return true;
        });
    }

    template <class Value>
    bool get(const scim::String &key, Value *value) const
    {
        return with_account(PLACE, false, [&] {
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

// There is no module to load: what the class keeps of one only tells whether it is the one that there is.

static ConfigPointer create_daemon_config()
{
    return with_account(PLACE, ConfigPointer(), [] { return ConfigPointer(new DaemonConfig); });
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
