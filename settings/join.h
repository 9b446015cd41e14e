#pragma once

#include <string>
#include <vector>

/// Returns the parts with a separator between them.
inline std::string join(const std::vector<std::string> &parts, const char *separator)
{
    std::string text;
    for (const std::string &part : parts)
        text += (text.empty() ? "" : separator) + part;
    return text;
}
