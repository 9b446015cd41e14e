#pragma once

#include <span>
#include <string>

#include "errors.h"
#include "setting_value.h"

/// Access to all settings of a device, wherever the device keeps them.
/// Every function throws DaemonError when the SCIM daemon can't be used, and PlatformError when another place
/// can't.
class Device
{
public:
    Device() = default;
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;
    virtual ~Device() = default;

    /// Returns one value for each row.
    virtual std::vector<DeviceValue> read(std::span<const SettingRow> rows) = 0;

    /// Returns the reason why the device can't store a value, for people; empty if it can.
    virtual std::string refuses(const SettingRow &row, const DeviceValue &value) = 0;

    /// Changes a setting. The change is durable once make_durable() has returned.
    ///
    /// @throws ValueError when the device can't store the value
    virtual void write(const SettingRow &row, const DeviceValue &value) = 0;

    /// Throws when a setting can't be written. Changes nothing.
    virtual void require_writable(const SettingRow &row) = 0;

    /// Makes sure that changes survive a power cut, except those that durability_warning() names.
    virtual void make_durable() = 0;

    /// Returns the reason why changes may not survive a power cut, for people; empty if they do.
    virtual std::string durability_warning() = 0;

    /// True if the service in this process accesses the setting through this host's library. False if another
    /// library, loaded in its stead, keeps the setting elsewhere.
    virtual bool serves(const SettingRow &row) = 0;

    /// The address at which the SCIM daemon is expected.
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
