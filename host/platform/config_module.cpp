// What the input-method framework promises of the configuration module "socket" and the stock library doesn't
// keep: it can be opened any number of times in one process, a configuration that can't be reached is an
// empty handle, and what could not be read or written is known. Linked before libscim-1.0, this takes the
// place of its scim::ConfigModule.

#include <vector>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "account.h"
#include "daemon.h"

namespace
{

constexpr SettingPlace PLACE = SettingPlace::configuration;

/// Does what the framework's interface asks for; a failure goes to the account.
template <class Work>
bool with_account(Work work)
{
    try {
        return work();
    } catch (const PlatformError &error) {
        account().note({Trouble::Kind::unusable, PLACE, error.what()});
        return false;
    }
}

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

    bool flush() override
    {
        return with_account([this] {
            daemon->flush();
            return true;
        });
    }

    bool reload() override
    {
        return with_account([this] {
                   daemon->reload();
                   return true;
               }) &&
               scim::DummyConfig::reload();
    }

private:
    template <class Value>
    bool get(const scim::String &key, Value *value) const
    {
        account().note(Use::reading, PLACE, key);
        return with_account([&] {
            const std::optional<Value> stored = daemon->read<Value>(key);
            if (stored)
                *value = *stored;
            else if (!daemon->read<scim::String>(key).value_or("").empty()) // a text, not what was asked for
                account().note({Trouble::Kind::unfit, PLACE,
                                "the configuration holds a value of another type under " + key});
            return stored.has_value();
        });
    }

    template <class Value>
    bool set(const scim::String &key, const Value &value)
    {
        account().note(Use::writing, PLACE, key);
        const scim::String text = format_config_text(value);
        Change change = {PLACE, key, {}, parse_config_text(text)};
        return with_account([&] {
            if (!read_before(change, text))
                begin_change(change, value);
            return true;
        });
    }

    /// @return whether the key holds the text already
    bool read_before(Change &change, const scim::String &text)
    {
        try {
            const auto stored = daemon->read<scim::String>(change.key);
            change.before = parse_config_text(stored.value_or(""));
            return stored == text;
        } catch (const DaemonError &) {
            account().refuse(change);
            throw;
        }
    }

    template <class Value>
    void begin_change(const Change &change, const Value &value)
    {
        const size_t number = account().begin(change);
        try {
            daemon->write(change.key, value);
            daemon->note_unflushed(number);
        } catch (const DaemonError &) {
            if (!daemon->is_lost()) // else it may have arrived
                account().end(number, Change::Outcome::refused);
            throw;
        }
    }

    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
};

// What looks at all places of the device alike.

std::vector<DeviceValue> read_rows(const std::vector<SettingRow> &rows)
{
    std::vector<scim::String> keys;
    for (const SettingRow &row : rows)
        keys.emplace_back(row.key);
    std::vector<DeviceValue> values;
    for (const auto &text : ScimDaemon::connect()->read_texts(keys))
        values.push_back(parse_config_text(text.value_or("")));
    return values;
}

void write_row(const SettingRow &row, const DeviceValue &value)
{
    if (value && !is_config_text(format_config_text(value)))
        throw ValueError(std::string("the configuration can't keep this text under ") + row.key);
    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
    if (!value)
        daemon->erase(row.key);
    else
        std::visit([&](const auto &typed) { daemon->write(row.key, typed); }, *value);
    daemon->flush();
    daemon->reload();
}

void require_writable()
{
    ScimDaemon::connect();
}

[[maybe_unused]] const bool registered =
    register_place(PLACE, {read_rows, write_row, require_writable, nullptr, ScimDaemon::default_address});

} // namespace

namespace scim
{

// There is no module to load: what the class keeps of one only tells whether it is the one that there is.

static void initialize() {}

static ConfigPointer create_daemon_config()
{
    ConfigPointer config;
    with_account([&] {
        config = new DaemonConfig;
        return true;
    });
    return config;
}

ConfigModule::ConfigModule(const String &name)
    : m_config_init(initialize), m_config_create_config(name == "socket" ? create_daemon_config : nullptr)
{
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
