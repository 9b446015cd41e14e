#pragma once

#include <optional>
#include <string>
#include <vector>

/// A text value under a key, with a date.
struct CloudRecord {
    std::optional<std::string> key;
    std::optional<std::string> date;
    std::optional<std::string> value;
    bool failed = false; ///< not kept in a file
};

using CloudRecords = std::vector<CloudRecord>;

/// The key of the only record in a backup from the service.
inline constexpr char RECORD_KEY[] = "0";

/// The maximum size of a record file in bytes. A record file is one JSON document with records and a checksum
/// of their text.
inline constexpr size_t MAX_RECORD_FILE_SIZE = size_t{16} * 1024 * 1024;

/// True if all JSON parsers agree on a record's value: they read the same snapshot, or all reject the text.
bool is_unambiguous(const std::string &value);

/// True if the service's parser accepts the text, or may accept it. This parser accepts more texts than
/// strict ones.
extern "C" bool service_reads(const char *text);

/// True if this is a record file, even a damaged one.
bool is_record_file(const std::string &content);

/// @throws HostError when the records are too large for a record file
std::string encode_record_file(const CloudRecords &records);

/// @throws HostError when `content` is not a record file, is damaged, or has an ambiguous value
CloudRecords decode_record_file(const std::string &content);
