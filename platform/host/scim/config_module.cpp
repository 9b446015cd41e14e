// What the input-method framework promises of a configuration module and the stock library doesn't keep: a
// module can be opened any number of times in one process, and a configuration that can't be reached is an
// empty handle. Linked before libscim-1.0, this takes the place of its scim::ConfigModule.

#include <map>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

namespace scim
{

/// Loads a module on its first use and keeps it until the process ends: the stock library refuses to load
/// one twice.
static const Module &resident_module(const String &name)
{
    static auto &modules = *new std::map<String, Module>;
    Module &module = modules[name];
    if (!module.valid())
        module.load(name, "Config");
    return module;
}

ConfigModule::ConfigModule(const String &name) : m_config_init(nullptr), m_config_create_config(nullptr)
{
    const Module &module = resident_module(name);
    if (!module.valid())
        return;
    m_config_init = reinterpret_cast<ConfigModuleInitFunc>(module.symbol("scim_config_module_init"));
    m_config_create_config =
        reinterpret_cast<ConfigModuleCreateConfigFunc>(module.symbol("scim_config_module_create_config"));
    if (m_config_init != nullptr)
        m_config_init();
}

bool ConfigModule::valid() const
{
    return m_config_init != nullptr && m_config_create_config != nullptr;
}

ConfigPointer ConfigModule::create_config() const
{
    ConfigPointer config = valid() ? m_config_create_config() : ConfigPointer();
    // Without its daemon a configuration answers every read with the default.
    return !config.null() && config->valid() ? config : ConfigPointer();
}

} // namespace scim
