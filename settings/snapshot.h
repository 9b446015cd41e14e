#pragma once

#include <optional>
#include <string>
#include <vector>

#include "setting_value.h"

/// A setting's value in a snapshot; empty if its member is missing or has a type that the service does not
/// read.
using SnapshotValue = std::variant<std::monostate, bool, std::string, std::vector<std::string>>;

/// A snapshot's values, in the order of #SETTINGS.
using SnapshotValues = std::array<SnapshotValue, SETTINGS.size()>;

/// A snapshot, as the service reads it.
struct Snapshot {
    bool is_object = false; ///< the service treats any other JSON value as an object without members
    SnapshotValues values;
    std::vector<std::string> problems; ///< differences from what the service writes, for a person
};

/// @return nothing unless the text is JSON that all parsers read alike: without comments, numbers that
///         overflow, NUL characters, or nesting that is too deep for a parser's stack
std::optional<Snapshot> read_snapshot(const std::string &text);

/// Returns the snapshot of these values, as the service writes it.
std::string write_snapshot(const SnapshotValues &values);

/// Returns a snapshot's value as the device stores it.
DeviceValue device_value(const SettingRow &row, const SnapshotValue &value);

/// True if both snapshots set the same values. The order of languages does not matter.
bool is_same_snapshot(const SnapshotValues &one, const SnapshotValues &other);
