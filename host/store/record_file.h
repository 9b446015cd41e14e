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

/// Key of the one record of a backup that the service makes.
inline constexpr char RECORD_KEY[] = "0";

/// A record file is one JSON document that holds records, with a checksum of their text. Anything larger than
/// this is none.
inline constexpr size_t MAX_RECORD_FILE_SIZE = size_t{16} * 1024 * 1024;

/// Whether the service reads the same in a record's value as others do: a snapshot, or nothing at all.
bool is_read_alike(const std::string &value);

/// Whether the service may read something in a text with its parser, which takes more for JSON than others
/// do.
extern "C" bool service_reads(const char *text);

/// Whether this is meant to be a record file, also if it is damaged.
bool is_record_file(const std::string &content);

/// @throws HostError when the records are more than a file can hold
std::string encode_record_file(const CloudRecords &records);

/// @throws HostError when `content` is no record file, or is one that was damaged, or holds a value that is
///         not read alike
CloudRecords decode_record_file(const std::string &content);
