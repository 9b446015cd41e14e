// The active input method.

#include "isf_control.h"

#include <array>

#include <glib.h>

#include "check.h"

/// Before the checks.
static auto &saved = *make_shared_memory<std::array<char, 1024>>();

static constexpr char OTHER[] = "ime-backup-check";

static std::string get_active()
{
    char *text = nullptr;
    const int length = CALL(isf_control_get_active_ime(&text));
    if (length <= 0 && text == nullptr)
        skip("no input method is active, so that no backup can be made");
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
    if (active.size() >= saved.size())
        skip("the active input method has too long an identifier");
    active.copy(saved.data(), saved.size());
}

static void put_back()
{
    if (get_active() == saved.data())
        return;
    isf_control_set_active_ime(saved.data());
    const std::string active = get_active();
    note("the active input method");
    expect(active, saved.data());
}

static constexpr Check CHECKS[] = {
    {"isf_control_get_active_ime() gives the length of the identifier",
     "It would make no backup: any other result is a failure.", [] { get_active(); }},

    {"isf_control_get_active_ime() gives a new text each time, to be freed with g_free()",
     "It would free a text twice, or one that is in use.",
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

    {"null is refused", "It would crash where it has no identifier.",
     [] {
         if (const int result = CALL(isf_control_get_active_ime(nullptr)); result > 0)
             fail("0 or a negative value", show(result));
         expect_negative(CALL(isf_control_set_active_ime(nullptr)));
     }},

    {"isf_control_set_active_ime() refuses an empty identifier, and leaves the active one",
     "It would leave the device without a keyboard.",
     [] {
         const std::string active = get_active();
         expect_negative(CALL(isf_control_set_active_ime("")));
         expect(get_active(), active);
     },
     Check::changes},

    {"isf_control_set_active_ime() accepts the one that is active",
     "It would take a keyboard that is restored for one that is not.",
     [] {
         const std::string active = get_active();
         expect(CALL(isf_control_set_active_ime(active.c_str())), 0);
         expect(get_active(), active);
     },
     Check::changes},

    {"isf_control_get_active_ime() gives what isf_control_set_active_ime() accepted, in each process",
     "It would restore another keyboard than the backup has, or none.",
     [] {
         // A device may refuse an identifier that it does not know.
         static auto &accepted = *make_shared_memory<bool>();
         static const auto expect_active = [] { expect(get_active(), accepted ? OTHER : saved.data()); };
         run_apart([] {
             const int result = CALL(isf_control_set_active_ime(OTHER));
             if (result > 0)
                 fail("0 or a negative value", show(result));
             accepted = result == 0;
             expect_active();
         });
         run_apart(expect_active);
     },
     Check::changes},
};

extern const Library ISF_CONTROL = {"isf-control", CHECKS, save, put_back};
