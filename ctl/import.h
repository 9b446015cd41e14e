#pragma once

#include <string>
#include <vector>

/// A backup that is made of what was imported.
struct Importable {
    std::string content;              ///< of its record file
    std::vector<std::string> remarks; ///< what a person should know of it
};

/// What a file holds; "-" is standard input.
///
/// @param use that is made of it, for a person
/// @throws HostError
std::string read_input(const std::string &name, size_t max_size, const char *use);

/// @throws DamagedError when it is a record file that was changed, or holds no snapshot
/// @throws HostError when it is neither a record file nor a snapshot
Importable make_importable(const std::string &content);
