#include "value.h"

#include <map>

#include <glib.h>

namespace
{

struct NamedHandle {
    std::string name;
    const void *owner;
};

// Never destroyed: the service may call until the very end.
std::map<const void *, NamedHandle> &handles = *new std::map<const void *, NamedHandle>;

} // namespace

/// Whether a terminal shows it and does nothing else. What JSON can't write as one escape is left as it is.
static bool is_harmless(gunichar character)
{
    return g_unichar_isprint(character) != FALSE || character > 0xffff;
}

std::string quote(const std::string &text)
{
    g_autofree gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string quoted = "\"";
    for (const gchar *next = valid; *next != '\0'; next = g_utf8_next_char(next)) {
        const gunichar character = g_utf8_get_char(next);
        if (character == '"' || character == '\\')
            quoted += '\\';
        if (is_harmless(character)) {
            quoted.append(next, static_cast<const gchar *>(g_utf8_next_char(next)));
        } else {
            g_autofree gchar *escape = g_strdup_printf("\\u%04x", character);
            quoted += escape;
        }
    }
    return quoted + "\"";
}

/// What a person sees as a script does.
static Shown show_alike(const std::string &text)
{
    return {text, text};
}

Shown show(int number)
{
    return show_alike(std::to_string(number));
}

Shown show(double number)
{
    return show_alike(std::to_string(number));
}

Shown show(bool truth)
{
    return show_alike(truth ? "true" : "false");
}

Shown show(const char *text)
{
    return show_alike(text == nullptr ? "null" : quote(text));
}

Shown show(const std::string &text)
{
    return show_alike(quote(text));
}

Shown show(const char *kind, const void *handle, const void *owner)
{
    if (handle == nullptr)
        return show_alike("null");
    static std::map<std::string, int> counts;
    NamedHandle &named = handles[handle];
    if (named.name.empty())
        named.name = std::string(kind) + "#" + std::to_string(++counts[kind]);
    if (owner != nullptr && owner != handle)
        named.owner = owner;
    return {named.name, quote(named.name)};
}

void forget_handle(const void *handle)
{
    std::erase_if(handles,
                  [&](const auto &known) { return known.first == handle || known.second.owner == handle; });
}
