#pragma once

#include <optional>
#include <string>
#include <vector>

#include <gio/gio.h>

/// A text value under a key, with a date.
struct CloudRecord {
    std::optional<std::string> key;
    std::optional<std::string> date;
    std::optional<std::string> value;
    bool failed = false; ///< not kept in a file
};

using CloudRecords = std::vector<CloudRecord>;

/// A record file is one JSON document that holds records, with a checksum of them. Anything larger than this
/// is none.
inline constexpr size_t MAX_RECORD_FILE_SIZE = size_t{16} * 1024 * 1024;

std::string encode_record_file(const CloudRecords &records);

/// @throws HostError when `content` is anything but what encode_record_file() made
CloudRecords decode_record_file(const std::string &content);

/// Reads a record file, as it is.
///
/// @throws HostError when it can't be read or is larger than #MAX_RECORD_FILE_SIZE
std::string read_record_file(GFile *file);
