// Input-method control: the active input method is SCIM's default input-method engine.

#include "isf_control.h"

#include <glib.h>

#include "account.h"
#include "daemon.h"

static constexpr int FAILED = -1;
static constexpr SettingPlace PLACE = SettingPlace::input_method_control;

int isf_control_get_active_ime(char **identifier)
{
    if (identifier == nullptr)
        return FAILED;
    account().note_call(PLACE);
    return note_problems(PLACE, FAILED, [&] {
        const scim::String engine = ScimDaemon::connect()->read<scim::String>(active_engine()).value_or("");
        if (!is_identifier(engine))
            return FAILED;
        *identifier = g_strdup(engine.c_str());
        return static_cast<int>(engine.length());
    });
}

int isf_control_set_active_ime(const char *identifier)
{
    if (identifier == nullptr || !is_identifier(identifier))
        return ISF_CONTROL_INVALID_IDENTIFIER;
    return note_problems(PLACE, FAILED, [&] {
        const std::shared_ptr<ScimDaemon> daemon = ScimDaemon::connect();
        daemon->write_on_account({PLACE, "", {}, identifier}, active_engine(), scim::String(identifier));
        if (!account().is_started() && daemon->has_unflushed()) { // an exchange flushes at its end
            daemon->flush();
            daemon->reload();
        }
        return 0;
    });
}
