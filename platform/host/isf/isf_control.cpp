// Input-method control: the active input method is SCIM's default input-method engine.

#include "isf_control.h"

#include <algorithm>
#include <string>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#define Uses_SCIM_CONFIG_PATH
#include <scim.h>

#include <glib.h>

static constexpr int FAILED = -1;
static constexpr size_t MAX_IDENTIFIER_LENGTH = 1024;

/// SCIM has a default engine for each language. A device has one for all, which is SCIM's for the languages
/// that have none of their own.
static const scim::String ACTIVE_ENGINE(SCIM_CONFIG_DEFAULT_IMENGINE_FACTORY "/~other");

static scim::ConfigPointer open_config()
{
    return scim::ConfigModule("socket").create_config();
}

int isf_control_get_active_ime(char **identifier)
{
    if (identifier == nullptr)
        return FAILED;
    const scim::ConfigPointer config = open_config();
    if (config.null())
        return FAILED;
    scim::String engine;
    if (!config->read(ACTIVE_ENGINE, &engine) || engine.empty())
        return FAILED;
    *identifier = g_strdup(engine.c_str());
    return static_cast<int>(engine.length());
}

/// Whether SCIM can keep it: its file has one line for each value, and trims it.
static bool is_identifier(const char *text)
{
    if (text == nullptr || g_utf8_validate(text, -1, nullptr) == FALSE)
        return false;
    const std::string identifier(text);
    return !identifier.empty() && identifier.length() <= MAX_IDENTIFIER_LENGTH && identifier.front() != ' ' &&
           identifier.back() != ' ' &&
           std::none_of(identifier.begin(), identifier.end(), [](char c) { return g_ascii_iscntrl(c); });
}

int isf_control_set_active_ime(const char *identifier)
{
    if (!is_identifier(identifier))
        return ISF_CONTROL_INVALID_IDENTIFIER;
    const scim::ConfigPointer config = open_config();
    if (config.null() || !config->write(ACTIVE_ENGINE, scim::String(identifier)) || !config->flush())
        return FAILED;
    config->reload();
    return 0;
}
