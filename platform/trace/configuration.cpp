// Wrappers of scim::ConfigModule, and of the configuration that it creates.

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "trace.h"

template <>
inline constexpr const char *HANDLE_KIND<const scim::ConfigModule *> = "module";
template <>
inline constexpr const char *HANDLE_KIND<const scim::ConfigBase *> = "config";

namespace
{

using Texts = std::vector<scim::String>;
using Numbers = std::vector<int>;

/// Traces the calls to a configuration, and makes them.
class TracedConfig : public scim::ConfigBase
{
public:
    explicit TracedConfig(const scim::ConfigPointer &config) : traced(config) {}
    TracedConfig(const TracedConfig &) = delete;
    TracedConfig &operator=(const TracedConfig &) = delete;
    ~TracedConfig() override { forget_handle(static_cast<const scim::ConfigBase *>(this)); }

    bool valid() const override { return traced->valid(); }
    scim::String get_name() const override { return traced->get_name(); }

    bool read(const scim::String &key, scim::String *value) const override { return get(key, value); }
    bool read(const scim::String &key, int *value) const override { return get(key, value); }
    bool read(const scim::String &key, double *value) const override { return get(key, value); }
    bool read(const scim::String &key, bool *value) const override { return get(key, value); }
    bool read(const scim::String &key, Texts *value) const override { return get(key, value); }
    bool read(const scim::String &key, Numbers *value) const override { return get(key, value); }

    bool write(const scim::String &key, const scim::String &value) override { return set(key, value); }
    bool write(const scim::String &key, int value) override { return set(key, value); }
    bool write(const scim::String &key, double value) override { return set(key, value); }
    bool write(const scim::String &key, bool value) override { return set(key, value); }
    bool write(const scim::String &key, const Texts &value) override { return set(key, value); }
    bool write(const scim::String &key, const Numbers &value) override { return set(key, value); }

    bool flush() override
    {
        return trace("scim::ConfigBase::flush", "(config)", [&] { return traced->flush(); });
    }

    bool erase(const scim::String &key) override
    {
        const auto work = [&] { return traced->erase(key); };
        return trace("scim::ConfigBase::erase", "(config, key)", work, key);
    }

    bool reload() override
    {
        const auto work = [&] { return traced->reload(); };
        return trace("scim::ConfigBase::reload", "(config)", work) && scim::ConfigBase::reload();
    }

private:
    template <class Value>
    bool get(const scim::String &key, Value *value) const
    {
        const auto work = [&] { return traced->read(key, value); };
        return trace("scim::ConfigBase::read", "(config, key, value)", work, key, value);
    }

    template <class Value>
    bool set(const scim::String &key, const Value &value)
    {
        const auto work = [&] { return traced->write(key, value); };
        return trace("scim::ConfigBase::write", "(config, key, value)", work, key, value);
    }

    template <class Work, class... Args>
    bool trace(const char *function, const char *names, Work work, const Args &...args) const
    {
        return trace_call<bool>(
            {function, names, Success::positive}, [&](auto...) { return work(); },
            static_cast<const scim::ConfigBase *>(this), args...);
    }

    const scim::ConfigPointer traced;
};

} // namespace

// The wrappers of ConfigModule's members are plain functions with the members' link names. They take `this`
// as the first argument. A real constructor here would construct the data members, which the library's
// constructor then constructs again.

#if _GLIBCXX_USE_CXX11_ABI
#define STRING_LINK_NAME "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#else
#define STRING_LINK_NAME "Ss"
#endif
#define CONSTRUCTOR_LINK_NAME "_ZN4scim12ConfigModuleC1ERK" STRING_LINK_NAME
#define VALID_LINK_NAME "_ZNK4scim12ConfigModule5validEv"
#define CREATE_CONFIG_LINK_NAME "_ZNK4scim12ConfigModule13create_configEv"

#pragma GCC visibility push(default)
void construct(scim::ConfigModule *module, const scim::String &name) asm(CONSTRUCTOR_LINK_NAME);
bool is_valid(const scim::ConfigModule *module) asm(VALID_LINK_NAME);
scim::ConfigPointer create_config(const scim::ConfigModule *module) asm(CREATE_CONFIG_LINK_NAME);
#pragma GCC visibility pop

void construct(scim::ConfigModule *module, const scim::String &name)
{
    static auto *const next = next_function<decltype(construct)>(CONSTRUCTOR_LINK_NAME);
    const auto work = [&](auto...) { next(module, name); };
    trace_call<void>({"scim::ConfigModule::ConfigModule", "(module, name)"}, work,
                     static_cast<const scim::ConfigModule *>(module), name);
}

bool is_valid(const scim::ConfigModule *module)
{
    static auto *const next = next_function<decltype(is_valid)>(VALID_LINK_NAME);
    return trace_call<bool>({"scim::ConfigModule::valid", "(module)"}, next, module);
}

scim::ConfigPointer create_config(const scim::ConfigModule *module)
{
    static auto *const next = next_function<decltype(create_config)>(CREATE_CONFIG_LINK_NAME);
    if (Frame::is_in_platform())
        return next(module);
    scim::ConfigPointer traced;
    const auto work = [&](const scim::ConfigModule *asked) -> const scim::ConfigBase * {
        if (const scim::ConfigPointer config = next(asked); !config.null())
            traced = new TracedConfig(config);
        return traced.get();
    };
    trace_call<const scim::ConfigBase *>({"scim::ConfigModule::create_config", "(module)"}, work, module);
    return traced;
}
