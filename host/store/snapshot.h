#pragma once

#include <string>
#include <vector>

#include "account.h"
#include "record_file.h"

/// What a snapshot holds for each of #SETTINGS, in their order and in the form in which the device keeps it:
/// nothing where a member is missing or of another type.
using Snapshot = std::vector<DeviceValue>;

/// Reads a snapshot as the service does. One that is no JSON object holds nothing.
Snapshot read_snapshot(const std::string &text);

/// The texts that a snapshot holds for a setting that is an identifier or languages: none for an empty
/// identifier. A language is as it is written, be the delimiter in it.
std::vector<std::string> texts_in(const std::string &text, const SettingRow &row);

/// Whether a text is a snapshot, be it an odd one: any JSON object.
bool is_snapshot(const std::string &text);

/// The snapshot that a restore of these records leaves in force: that of the last one.
///
/// @throws DamagedError when a record holds none
std::string snapshot_in(const CloudRecords &records);

/// Whether two values of a setting are the same. A backup brings languages in an order of its own, so theirs
/// does not matter.
bool is_same_value(const SettingRow &row, const DeviceValue &one, const DeviceValue &other);

bool is_same_snapshot(const Snapshot &one, const Snapshot &other);

/// What a person should know of a snapshot that the service did not write: each member that it lacks or does
/// not know, or that is of another type than the service reads.
///
/// @throws HostError when it is none
std::vector<std::string> find_oddities(const std::string &text);

/// The languages in a device's list of them.
std::vector<std::string> split_languages(const std::string &list);
