#pragma once

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

/// @throws StateError or PlatformError when the device isn't there, or can't be changed
void require_device();

/// SCIM answers with defaults, and drops what it is told, when its daemon ends in the middle of an exchange.
///
/// @throws PlatformError with this consequence when the daemon is gone
void require_daemon_still(const std::string &consequence);

/// One setting of the device, with its value as a person writes it.
struct Setting {
    const char *name;
    const char *place;
    const char *key; ///< in that place; for the keyboard, which has none, what it is there
    std::optional<std::string> (*get)(Device &, const char *key);
    void (*set)(Device &, const char *key, const std::string &text);

    /// Nothing when it is not set.
    std::optional<std::string> value(Device &device) const { return get(device, key); }
};

/// The nine settings of a snapshot, in its order.
const std::vector<Setting> &snapshot_settings();

/// One of these, or of the two that decide what a restore can bring back.
///
/// @throws UsageError when there is none with this name
const Setting &find_setting(const std::string &name);
