#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "join.h"

/// The text on one line that does nothing to a terminal: characters that control it or can't be seen, and
/// bytes that are no UTF-8, become escape sequences.
std::string escaped(std::string_view text);

/// The text's words in lines of at most this width, which is not 0.
std::vector<std::string> wrap(const std::string &text, size_t width);

/// Whether what is written to this file is shown in colours: on a terminal, unless $NO_COLOR is set.
bool shows_colour(int file);
