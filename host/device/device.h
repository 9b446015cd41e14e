#pragma once

#include <span>
#include <string>

#include "errors.h"
#include "setting_value.h"

/// The settings of a device, wherever it keeps them, for what looks at all of them alike.
/// Every function throws PlatformError when a place can't be used: DaemonError when that is the SCIM daemon.
class Device
{
public:
    Device() = default;
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    virtual ~Device() = default;

    /// @return a value for each row
    virtual std::vector<DeviceValue> read(std::span<const SettingRow> rows) = 0;

    /// Whether it keeps a value.
    ///
    /// @return why not, for a person, or an empty text
    virtual std::string refuses(const SettingRow &row, const DeviceValue &value) = 0;

    /// Changes a setting, durably once make_durable() has returned.
    ///
    /// @throws ValueError when it refuses the value
    virtual void write(const SettingRow &row, const DeviceValue &value) = 0;

    /// Throws when the place of a setting can't be written. Nothing is made.
    virtual void require_writable(const SettingRow &row) = 0;

    /// Has what was written outlive a power cut, as far as not_assured() doesn't deny it.
    virtual void make_durable() = 0;

    /// Why what was written may not outlive a power cut, for a person, or an empty text.
    virtual std::string not_assured() = 0;

    /// Whether the service, in this process, keeps the setting on this device. Else the platform's library
    /// for it is another's.
    virtual bool serves(const SettingRow &row) = 0;

    /// Where the SCIM daemon is looked for.
    virtual std::string daemon_address() = 0;

    DeviceValue read_one(const SettingRow &row) { return read({&row, 1}).front(); }
    DeviceState read_all()
    {
        const std::vector<DeviceValue> values = read(ALL_SETTINGS);
        DeviceState state;
        std::copy(values.begin(), values.end(), state.begin());
        return state;
    }
};

/// The device of this process.
extern "C" Device *host_device();
