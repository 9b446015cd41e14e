#pragma once

#include <optional>
#include <string>
#include <vector>

#include "setting_value.h"

/// What a snapshot holds for a setting; nothing where its member is missing, or of a type that the service
/// does not read.
using SnapshotValue = std::variant<std::monostate, bool, std::string, std::vector<std::string>>;

/// A snapshot's values, in the order of #SETTINGS.
using SnapshotValues = std::array<SnapshotValue, SETTINGS.size()>;

/// A snapshot, as the service reads it.
struct Snapshot {
    bool is_object = false; ///< the service also applies any other JSON value, as one without members
    SnapshotValues values;
    std::vector<std::string> oddities; ///< for a person: how it differs from one that the service writes
};

/// @return nothing unless the text is JSON that every parser reads alike. Comments, numbers that overflow,
///         NUL, and nesting that a parser's stack may not bear are not.
std::optional<Snapshot> read_snapshot(const std::string &text);

/// The snapshot of these values, as the service writes one.
std::string write_snapshot(const SnapshotValues &values);

/// The value in the form in which the device keeps it.
DeviceValue device_value(const SettingRow &row, const SnapshotValue &value);

/// Whether the two bring a device to the same: the order of languages does not matter.
bool is_same_snapshot(const SnapshotValues &one, const SnapshotValues &other);
