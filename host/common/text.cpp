#include "text.h"

#include <sstream>
#include <unistd.h>

#include <glib.h>

static bool is_harmless(gunichar character)
{
    switch (g_unichar_type(character)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT: // such as those that turn the direction of writing
    case G_UNICODE_SURROGATE:
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
        return false;
    default:
        return true;
    }
}

static std::string escape(const char *format, guint number)
{
    char sequence[16];
    g_snprintf(sequence, sizeof sequence, format, number);
    return sequence;
}

std::string escaped(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        size_t length = 1;
        if ((character & 0x80000000U) != 0 || character == 0) { // no character, or none that is whole
            line += escape("\\x%02x", static_cast<unsigned char>(text.front()));
        } else {
            length = static_cast<size_t>(g_utf8_next_char(text.data()) - text.data());
            if (is_harmless(character))
                line.append(text, 0, length);
            else
                line += escape(character < 0x80 ? "\\x%02x" : "\\u%04x", character);
        }
        text.remove_prefix(length);
    }
    return line;
}

std::vector<std::string> wrap(const std::string &text, size_t width)
{
    std::vector<std::string> lines(1);
    std::istringstream words(text);
    const auto length = [](const std::string &part) {
        return static_cast<size_t>(g_utf8_strlen(part.c_str(), -1));
    };
    for (std::string word; words >> word;) {
        if (!lines.back().empty() && length(lines.back()) + 1 + length(word) > width)
            lines.emplace_back();
        lines.back() += (lines.back().empty() ? "" : " ") + word;
        while (length(lines.back()) > width) { // a word alone that is too long
            const std::string line = lines.back();
            const auto cut = static_cast<size_t>(
                g_utf8_offset_to_pointer(line.c_str(), static_cast<glong>(width)) - line.c_str());
            lines.back().erase(cut);
            lines.push_back(line.substr(cut));
        }
    }
    return lines;
}

bool shows_colour(int file)
{
    const char *no_colour = g_getenv("NO_COLOR");
    return isatty(file) != 0 && (no_colour == nullptr || *no_colour == '\0');
}
