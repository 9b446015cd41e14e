#include "text.h"

#include <algorithm>
#include <sstream>
#include <unistd.h>

#include <glib.h>

static bool is_harmless(gunichar character)
{
    static constexpr GUnicodeType HARMFUL[] = {
        G_UNICODE_CONTROL, G_UNICODE_FORMAT, // such as bidirectional overrides
        G_UNICODE_SURROGATE, G_UNICODE_LINE_SEPARATOR, G_UNICODE_PARAGRAPH_SEPARATOR};
    return std::ranges::find(HARMFUL, g_unichar_type(character)) == std::end(HARMFUL);
}

std::string escaped(std::string_view text)
{
    std::string line;
    while (!text.empty()) {
        const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
        const bool is_whole = (character & 0x80000000U) == 0 && character != 0;
        const auto length = static_cast<size_t>(is_whole ? g_utf8_next_char(text.data()) - text.data() : 1);
        if (is_whole && is_harmless(character)) {
            line.append(text, 0, length);
        } else {
            const guint number = is_whole ? character : static_cast<unsigned char>(text.front());
            char sequence[16];
            g_snprintf(sequence, sizeof sequence, is_whole && number >= 0x80 ? "\\u%04x" : "\\x%02x", number);
            line += sequence;
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
        while (length(lines.back()) > width) { // a single word that is too long
            const std::string line = lines.back();
            const gchar *cut = g_utf8_offset_to_pointer(line.c_str(), static_cast<glong>(width));
            lines.back() = std::string(line.c_str(), cut);
            lines.emplace_back(cut);
        }
    }
    return lines;
}

bool shows_colour(int file)
{
    const char *no_colour = g_getenv("NO_COLOR");
    return isatty(file) != 0 && (no_colour == nullptr || *no_colour == '\0');
}
