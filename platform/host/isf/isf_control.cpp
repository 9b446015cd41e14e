// Input-method control: the active input method is SCIM's default input-method engine.

#include "isf_control.h"

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#define Uses_SCIM_CONFIG_PATH
#include <scim.h>

#include <glib.h>

static constexpr int FAILED = -1;

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

int isf_control_set_active_ime(const char *identifier)
{
    if (identifier == nullptr || *identifier == '\0')
        return FAILED;
    const scim::ConfigPointer config = open_config();
    if (config.null() || !config->write(ACTIVE_ENGINE, scim::String(identifier)) || !config->flush())
        return FAILED;
    config->reload();
    return 0;
}
