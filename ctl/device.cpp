#include "device.h"

#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include <glib.h>

#include "errors.h"
#include "ime_backup_settings.h"
#include "isf_control.h"

static scim::ConfigPointer open_config()
{
    const scim::ConfigModule module("socket");
    if (!module.valid())
        throw PlatformError("SCIM has no \"socket\" configuration module; install it with: "
                            "apt-get install scim-modules-socket");
    scim::ConfigPointer config = module.create_config();
    if (config.null())
        throw PlatformError("the SCIM daemon isn't running; start it with: " SCIM_LAUNCHER
                            " -d -c simple -e none -f socket");
    return config;
}

Device::Device() : config(open_config()) {}

void require_device()
{
    Device().store.require_writable();
}

void require_daemon_still(const std::string &consequence)
{
    try {
        open_config();
    } catch (const PlatformError &error) {
        throw PlatformError(error.what() + std::string("\nIt was lost on the way: ") + consequence);
    }
}

static bool parse_boolean(const std::string &text)
{
    for (const char *word : {"true", "on", "yes", "1"})
        if (text == word)
            return true;
    for (const char *word : {"false", "off", "no", "0"})
        if (text == word)
            return false;
    throw UsageError("\"" + text + "\" is neither true nor false");
}

static std::string format_boolean(bool value)
{
    return value ? "true" : "false";
}

// The active keyboard.

static std::optional<std::string> get_keyboard(Device &, const char *)
{
    g_autofree char *identifier = nullptr;
    if (isf_control_get_active_ime(&identifier) <= 0)
        return std::nullopt;
    return identifier;
}

static void set_keyboard(Device &, const char *, const std::string &text)
{
    const int result = isf_control_set_active_ime(text.c_str());
    if (result == ISF_CONTROL_INVALID_IDENTIFIER)
        throw UsageError("\"" + text + "\" can't be a keyboard's identifier");
    if (result != 0)
        throw PlatformError("the SCIM daemon refused the keyboard");
}

// Language lists in the settings store. A person writes them with commas.

static std::optional<std::string> get_languages(Device &device, const char *key)
{
    const auto value = device.store.get(key);
    if (!value || !std::holds_alternative<std::string>(*value))
        return std::nullopt;
    std::string list = std::get<std::string>(*value);
    if (list.ends_with(LANGUAGE_DELIMITER))
        list.pop_back();
    for (char &character : list)
        if (character == LANGUAGE_DELIMITER)
            character = ',';
    return list;
}

static void set_languages(Device &device, const char *key, const std::string &text)
{
    if (g_utf8_validate(text.c_str(), -1, nullptr) == FALSE)
        throw UsageError("the languages are not UTF-8");
    std::string list;
    g_auto(GStrv) languages = g_strsplit_set(text.c_str(), ", #", -1);
    for (gchar **language = languages; *language != nullptr; language++)
        if (**language != '\0')
            list.append(*language).push_back(LANGUAGE_DELIMITER);
    device.store.set({{key, list}});
}

// Booleans in the settings store.

static std::optional<std::string> get_stored_boolean(Device &device, const char *key)
{
    const auto value = device.store.get(key);
    if (!value || !std::holds_alternative<bool>(*value))
        return std::nullopt;
    return format_boolean(std::get<bool>(*value));
}

static void set_stored_boolean(Device &device, const char *key, const std::string &text)
{
    device.store.set({{key, parse_boolean(text)}});
}

// Booleans in the input-method configuration, which keeps some as integers.

template <class Form>
static std::optional<std::string> get_config(Device &device, const char *key)
{
    Form value{};
    if (!device.config->read(scim::String(key), &value))
        return std::nullopt;
    return format_boolean(value != Form{});
}

template <class Form>
static void set_config(Device &device, const char *key, const std::string &text)
{
    const auto value = static_cast<Form>(parse_boolean(text));
    if (!device.config->write(scim::String(key), value) || !device.config->flush())
        throw PlatformError("the SCIM daemon refused the value");
    device.config->reload();
}

static constexpr char STORE[] = "settings store";
static constexpr char CONFIG[] = "input-method configuration";

static Setting make_setting(const SettingRow &row)
{
    const bool stored = row.place == SettingPlace::settings_store;
    switch (row.form) {
    case SettingForm::identifier:
        break;
    case SettingForm::languages:
        return {row.member, STORE, row.key, get_languages, set_languages};
    case SettingForm::boolean_switch:
        if (stored)
            return {row.member, STORE, row.key, get_stored_boolean, set_stored_boolean};
        return {row.member, CONFIG, row.key, get_config<bool>, set_config<bool>};
    case SettingForm::integer_switch:
        return {row.member, CONFIG, row.key, get_config<int>, set_config<int>};
    }
    return {row.member, "input-method control", "active input method", get_keyboard, set_keyboard};
}

template <class Rows>
static std::vector<Setting> make_settings(const Rows &rows)
{
    std::vector<Setting> settings;
    for (const SettingRow &row : rows)
        settings.push_back(make_setting(row));
    return settings;
}

const std::vector<Setting> &snapshot_settings()
{
    static const std::vector<Setting> settings = make_settings(SETTINGS);
    return settings;
}

static const std::vector<Setting> &other_settings()
{
    static const std::vector<Setting> settings = make_settings(DOWNLOADED_LISTS);
    return settings;
}

const Setting &find_setting(const std::string &name)
{
    std::string known;
    for (const auto *settings : {&snapshot_settings(), &other_settings()})
        for (const Setting &setting : *settings) {
            if (setting.name == name)
                return setting;
            known += (known.empty() ? "" : ", ") + std::string(setting.name);
        }
    throw UsageError("there is no setting \"" + name + "\"; there are " + known);
}
