// Input-method control: the active input method is SCIM's default input-method engine.

#include "isf_control.h"

#include <algorithm>
#include <string>

#define Uses_SCIM_CONFIG_PATH
#include <scim.h>

#include <glib.h>

#include "account.h"
#include "daemon.h"

static constexpr int FAILED = -1;
static constexpr SettingPlace PLACE = SettingPlace::input_method_control;

static constexpr char NO_IDENTIFIER[] = "no input method can have this identifier";

/// SCIM has a default engine for each language. A device has one for all, which is SCIM's for the languages
/// that have none of their own.
static const scim::String &active_engine()
{
    static const scim::String key(SCIM_CONFIG_DEFAULT_IMENGINE_FACTORY "/~other");
    return key;
}

static bool is_identifier(const std::string &text)
{
    return is_config_text(text) &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.length()), nullptr) != FALSE &&
           std::none_of(text.begin(), text.end(), [](char c) { return g_ascii_iscntrl(c); });
}

/// The active input method's identifier, or an empty one when there is none.
static std::string get_engine()
{
    return ScimDaemon::connect()->read<scim::String>(active_engine()).value_or("");
}

static DeviceValue engine_value(const std::string &engine)
{
    return engine.empty() ? DeviceValue() : engine;
}

static void write_engine(ScimDaemon &daemon, const std::string &identifier)
{
    if (identifier.empty())
        daemon.erase(active_engine());
    else
        daemon.write(active_engine(), scim::String(identifier));
}

static void flush(ScimDaemon &daemon)
{
    daemon.flush();
    daemon.reload();
}

static void note(Trouble::Kind kind, const std::string &reason)
{
    account().note({kind, PLACE, reason});
}

int isf_control_get_active_ime(char **identifier)
{
    if (identifier == nullptr)
        return FAILED;
    account().note(Use::reading, PLACE, "");
    try {
        const std::string engine = get_engine();
        if (is_identifier(engine)) {
            *identifier = g_strdup(engine.c_str());
            return static_cast<int>(engine.length());
        }
        note(Trouble::Kind::unfit, engine.empty() ? "no input method is active"
                                                  : "the active input method has no usable identifier");
    } catch (const DaemonError &error) {
        note(Trouble::Kind::unusable, error.what());
    }
    return FAILED;
}

/// What is active before a change.
static DeviceValue read_before(const Change &change)
{
    try {
        return engine_value(get_engine());
    } catch (const DaemonError &) {
        account().refuse(change);
        throw;
    }
}

/// Makes an input method the active one, on the account.
static void change_engine(const std::string &identifier)
{
    Change change = {PLACE, "", {}, identifier};
    change.before = read_before(change);
    if (change.before == change.after)
        return;
    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
    const size_t number = account().begin(change);
    try {
        write_engine(*daemon, identifier);
        daemon->note_unflushed(number);
    } catch (const DaemonError &) {
        if (!daemon->is_lost()) // else it may have arrived
            account().end(number, Change::Outcome::refused);
        throw;
    }
    if (!account().is_started()) // else it is flushed with what else the exchange changes
        flush(*daemon);
}

int isf_control_set_active_ime(const char *identifier)
{
    if (identifier == nullptr)
        return ISF_CONTROL_INVALID_IDENTIFIER;
    if (!is_identifier(identifier)) {
        account().refuse({PLACE, "", {}, identifier});
        note(Trouble::Kind::refused, NO_IDENTIFIER);
        return ISF_CONTROL_INVALID_IDENTIFIER;
    }
    try {
        change_engine(identifier);
        return 0;
    } catch (const PlatformError &error) {
        note(Trouble::Kind::unusable, error.what());
        return FAILED;
    }
}

// What looks at all places of the device alike.

static std::vector<DeviceValue> read_rows(const std::vector<SettingRow> &rows)
{
    std::vector<DeviceValue> values(rows.size(), engine_value(get_engine()));
    return values;
}

static void write_row(const SettingRow &, const DeviceValue &value)
{
    const auto *identifier = value ? std::get_if<std::string>(&*value) : nullptr;
    if (value && (identifier == nullptr || !is_config_text(*identifier)))
        throw ValueError(NO_IDENTIFIER);
    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
    write_engine(*daemon, identifier == nullptr ? "" : *identifier);
    flush(*daemon);
}

static void require_writable()
{
    ScimDaemon::connect();
}

static void make_durable()
{
    const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
    if (daemon->has_unflushed())
        flush(*daemon);
}

[[maybe_unused]] static const bool registered =
    register_place(PLACE, {read_rows, write_row, require_writable, make_durable});
