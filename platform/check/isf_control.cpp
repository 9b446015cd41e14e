// The active input method.

#include "isf_control.h"

#include <array>

#include <glib.h>

#include "check.h"

/// The input method that was active before the checks.
static auto &saved_identifier = *make_shared_memory<std::array<char, 1024>>();

static constexpr char OTHER_IDENTIFIER[] = "ime-backup-check";

static std::string get_active()
{
    char *text = nullptr;
    const int length = CALL(isf_control_get_active_ime(&text));
    if (length <= 0 && text == nullptr)
        skip("no input method is active, so no backup can be made");
    if (text == nullptr)
        fail("a text", "null");
    const std::string identifier = text;
    g_free(text);
    expect(length, static_cast<int>(identifier.size()));
    if (identifier.empty())
        fail("an identifier", show(identifier));
    return identifier;
}

static void save()
{
    const std::string active = get_active();
    if (active.size() >= saved_identifier.size())
        skip("the active input method's identifier is too long");
    active.copy(saved_identifier.data(), saved_identifier.size());
}

static void put_back()
{
    if (get_active() == saved_identifier.data())
        return;
    isf_control_set_active_ime(saved_identifier.data());
    const std::string active = get_active();
    note_call("the active input method");
    expect(active, saved_identifier.data());
}

static constexpr Check CHECKS[] = {
    {"isf_control_get_active_ime() returns the length of the identifier",
     "The service would treat the call as failed, and make no backup.", [] { get_active(); }},

    {"isf_control_get_active_ime() returns a new text each time, which g_free() can free",
     "The service would free a text twice, or while the text is in use.",
     [] {
         const std::string active = get_active();
         char *one = nullptr;
         char *other = nullptr;
         CALL(isf_control_get_active_ime(&one));
         CALL(isf_control_get_active_ime(&other));
         expect(one == other, false, "the same text: ");
         one[0] = '?';
         g_free(one);
         expect(other, active);
         g_free(other);
     }},

    {"null is refused", "The service would crash when it has no identifier.",
     [] {
         if (const int result = CALL(isf_control_get_active_ime(nullptr)); result > 0)
             fail("0 or a negative value", show(result));
         expect_negative(CALL(isf_control_set_active_ime(nullptr)));
     }},

    {"isf_control_set_active_ime() refuses an empty identifier, and keeps the active input method",
     "The service would leave the device without a keyboard.",
     [] {
         const std::string active = get_active();
         expect_negative(CALL(isf_control_set_active_ime("")));
         expect(get_active(), active);
     },
     Check::changes},

    {"isf_control_set_active_ime() accepts the identifier that is already active",
     "The service would treat a restored keyboard as not restored.",
     [] {
         const std::string active = get_active();
         expect(CALL(isf_control_set_active_ime(active.c_str())), 0);
         expect(get_active(), active);
     },
     Check::changes},

    {"isf_control_get_active_ime() returns what isf_control_set_active_ime() accepted, in every process",
     "The service would restore no keyboard, or another keyboard than the backup's.",
     [] {
         // A device may refuse an unknown identifier.
         static auto &accepted = *make_shared_memory<bool>();
         static const auto expect_active = [] {
             expect(get_active(), accepted ? OTHER_IDENTIFIER : saved_identifier.data());
         };
         run_in_process([] {
             const int result = CALL(isf_control_set_active_ime(OTHER_IDENTIFIER));
             if (result > 0)
                 fail("0 or a negative value", show(result));
             accepted = result == 0;
             expect_active();
         });
         run_in_process(expect_active);
     },
     Check::changes},
};

extern const Library ISF_CONTROL = {"isf-control", CHECKS, save, put_back};
