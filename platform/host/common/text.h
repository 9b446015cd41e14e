#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The text on one line that does nothing to a terminal: characters that control it or can't be seen, and
/// bytes that are no UTF-8, become escape sequences.
std::string escaped(std::string_view text);

std::string join(const std::vector<std::string> &parts, const char *separator);
