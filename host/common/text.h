#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "join.h"

/// Returns the text as one line that is safe to print on a terminal: control characters, invisible characters
/// and bytes that are not UTF-8 become escape sequences.
std::string escaped(std::string_view text);

/// Wraps the text's words into lines of at most `width` characters, which must not be 0.
std::vector<std::string> wrap(const std::string &text, size_t width);

/// True if text for this file may have colours: it is a terminal, and $NO_COLOR is not set.
bool shows_colour(int file);
