// The platform log: one line for each message, on standard error.

#include "dlog.h"

#include <cstdarg>
#include <memory>
#include <string>
#include <unistd.h>

#include <glib.h>

static char priority_letter(int priority)
{
    static constexpr char letters[] = "??VDIWEF";
    return priority < 0 || priority > 7 ? '?' : letters[priority];
}

static bool colour_is_wanted()
{
    const char *no_colour = g_getenv("NO_COLOR");
    return isatty(STDERR_FILENO) != 0 && (no_colour == nullptr || *no_colour == '\0');
}

/// Length of the colour sequence ("\033[...m") that `text` begins with, or 0.
static size_t colour_length(const char *text)
{
    if (text[0] != '\033' || text[1] != '[')
        return 0;
    size_t length = 2;
    while (g_ascii_isdigit(text[length]) || text[length] == ';')
        length++;
    return text[length] == 'm' ? length + 1 : 0;
}

/// Keeps a message on its line, whatever it quotes: a newline that ends it is dropped, and other control
/// characters are escaped.
static std::string sanitize(const char *text, bool colour)
{
    std::string line;
    while (*text != '\0') {
        if (const size_t length = colour_length(text); length > 0) {
            if (colour)
                line.append(text, length);
            text += length;
            continue;
        }
        const auto byte = static_cast<unsigned char>(*text++);
        if (byte == '\n' && text[colour_length(text)] == '\0')
            continue;
        if (g_ascii_iscntrl(static_cast<char>(byte))) {
            static constexpr char digits[] = "0123456789abcdef";
            line.append({'\\', 'x', digits[byte >> 4], digits[byte & 0xf]});
        } else {
            line.push_back(static_cast<char>(byte));
        }
    }
    return line;
}

int __dlog_print(int /*buffer*/, int priority, const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::unique_ptr<gchar, decltype(&g_free)> text(g_strdup_vprintf(format, arguments), g_free);
    va_end(arguments);

    g_autoptr(GDateTime) now = g_date_time_new_now_utc();
    const std::unique_ptr<gchar, decltype(&g_free)> time(g_date_time_format(now, "%FT%T"), g_free);
    const std::unique_ptr<gchar, decltype(&g_free)> head(
        g_strdup_printf("%s.%03dZ %c %s %d: ", time.get(), g_date_time_get_microsecond(now) / 1000,
                        priority_letter(priority), tag == nullptr ? "" : tag, getpid()),
        g_free);

    // One write for each line: lines of several processes do not mix.
    const std::string line = head.get() + sanitize(text.get(), colour_is_wanted()) + "\n";
    return static_cast<int>(write(STDERR_FILENO, line.data(), line.size()));
}
