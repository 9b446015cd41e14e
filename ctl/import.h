#pragma once

#include <string>
#include <vector>

/// A backup made from a file.
struct Importable {
    std::string content;              ///< of the record file
    std::vector<std::string> remarks; ///< problems of the snapshot
};

/// Reads a file; "-" is standard input.
///
/// @param purpose such as "imported", for the error
/// @throws HostError
std::string read_input(const std::string &name, size_t max_size, const char *purpose);

/// Makes a backup from a record file or a snapshot.
///
/// @throws DamagedError if a record file was changed or holds no snapshot, or if the text is not strict JSON
/// @throws HostError if the content is neither of the two
Importable make_importable(const std::string &content);
