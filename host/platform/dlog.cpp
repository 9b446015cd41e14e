// The platform log: writes each message to standard error as one line.

#include "dlog.h"

#include <cstdarg>
#include <string>
#include <unistd.h>

#include <glib.h>

#include "text.h"

/// The letters of the priorities.
static constexpr char LETTERS[] = "??VDIWEF";

/// Returns the first colour sequence ("\033[...m") in `text` from `begin` on, or "".
static std::string find_colour(const std::string &text, size_t begin)
{
    const size_t escape = text.find("\033[", begin);
    const size_t end =
        text.find_first_not_of("0123456789;", escape == std::string::npos ? escape : escape + 2);
    return end == std::string::npos || text[end] != 'm' ? "" : text.substr(escape, end + 1 - escape);
}

/// Converts a message to one line that is safe to print. Drops the newline at its end. Keeps the colours that
/// the format begins and ends with if `with_colour` is true, and escapes all other control characters.
static std::string sanitize(const std::string &format, std::string text, bool with_colour)
{
    const std::string opening = find_colour(format, 0);
    const size_t body = opening.empty() ? 0 : text.find(opening) + opening.size();
    std::string closing = find_colour(format, format.find_last_of('\033'));
    if (format.ends_with(closing) && text.ends_with(closing))
        text.erase(text.size() - closing.size());
    else
        closing.clear();
    if (text.ends_with('\n') && text.size() > body)
        text.pop_back();
    return escaped(std::string_view(text).substr(0, body - opening.size())) + (with_colour ? opening : "") +
           escaped(std::string_view(text).substr(body)) + (with_colour ? closing : "");
}

int __dlog_print(int /*buffer*/, int priority, const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    g_autofree gchar *text = g_strdup_vprintf(format, arguments);
    va_end(arguments);

    g_autoptr(GDateTime) now = g_date_time_new_now_utc();
    g_autofree gchar *time = g_date_time_format(now, "%FT%T");
    const char letter = priority < 0 || priority > 7 ? '?' : LETTERS[priority];
    g_autofree gchar *head =
        g_strdup_printf("%s.%03dZ %c %s %d: ", time, g_date_time_get_microsecond(now) / 1000, letter,
                        tag == nullptr ? "" : tag, getpid());

    // One write for each line, so that lines of several processes do not mix.
    const std::string line = head + sanitize(format, text, shows_colour(STDERR_FILENO)) + "\n";
    return static_cast<int>(write(STDERR_FILENO, line.data(), line.size()));
}
