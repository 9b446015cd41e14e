#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#define Uses_SCIM_CONFIG_BASE
#include <scim.h>

#include "settings_store.h"

/// The keyboard's settings on this workstation, each in the place where the backup service looks for it.
class Device
{
public:
    /// @throws StateError when the settings store can't be used, and PlatformError when SCIM can't be reached
    Device();

    SettingsStore store;
    scim::ConfigPointer config;
};

/// How a setting's value is written in the device's own form.
struct Setting {
    const char *name;
    const char *place;
    const char *key;
    /// The value, for a person; nothing when it is not set.
    std::optional<std::string> (*get)(Device &, const char *key);
    /// @throws UsageError when the text is no such value
    void (*set)(Device &, const char *key, const std::string &text);
};

/// The nine settings of a snapshot, in its order.
const std::vector<Setting> &snapshot_settings();

/// These, and the ones that decide what a restore can bring back.
const std::vector<Setting> &all_settings();
