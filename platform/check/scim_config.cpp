// The input-method configuration, through SCIM's own classes.

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "check.h"
#include "ime_backup_settings.h"

namespace
{

/// The value of a key.
struct StoredValue {
    bool is_set;    ///< to a value of the setting's type
    int number;     ///< the value, if it is set
    char text[200]; ///< else the text that is stored instead, if any
};

} // namespace

/// The settings' values before the checks, in the order of #SETTINGS.
static auto &saved = *make_shared_memory<std::array<StoredValue, SETTINGS.size()>>();

static constexpr char MISSING_KEY[] = "keyloom/ime_backup_check/missing";

static scim::ConfigPointer create_config()
{
    const auto *module = new scim::ConfigModule("socket"); // never deleted, as in the service
    expect(CALL(module->valid()), true);
    scim::ConfigPointer config = CALL(module->create_config());
    if (config.null())
        fail("a configuration", "an empty handle");
    return config;
}

static bool is_in_configuration(const SettingRow &row)
{
    return row.place == SettingPlace::configuration;
}

static StoredValue read_stored(const scim::ConfigPointer &config, const SettingRow &row)
{
    StoredValue stored = {};
    bool truth = false;
    scim::String text;
    if (row.form == SettingForm::integer_switch)
        stored.is_set = CALL(config->read(row.key, &stored.number));
    else if (stored.is_set = CALL(config->read(row.key, &truth)); stored.is_set)
        stored.number = truth ? 1 : 0;
    if (!stored.is_set && CALL(config->read(row.key, &text))) {
        if (text.size() >= sizeof stored.text)
            skip(std::string("the text under ") + row.key + " is too long");
        text.copy(stored.text, text.size());
    }
    return stored;
}

static void expect_not_set(const scim::ConfigPointer &config)
{
    int number = 42;
    bool truth = true;
    expect(CALL(config->read(MISSING_KEY, &number)), false);
    expect(number, 42, "the output: ");
    expect(CALL(config->read(MISSING_KEY, &truth)), false);
    expect(truth, true, "the output: ");
}

static void save()
{
    const scim::ConfigPointer config = create_config();
    expect_not_set(config); // or else an unset setting could not be put back
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_configuration(SETTINGS[i]))
            saved[i] = read_stored(config, SETTINGS[i]);
}

static std::string describe(const StoredValue &stored)
{
    return stored.is_set ? show(stored.number) : *stored.text != '\0' ? show(stored.text) : "not set";
}

static void write(const scim::ConfigPointer &config, const SettingRow &row, const StoredValue &stored)
{
    if (!stored.is_set && *stored.text == '\0')
        config->erase(row.key);
    else if (!stored.is_set)
        config->write(row.key, scim::String(stored.text));
    else if (row.form == SettingForm::integer_switch)
        config->write(row.key, stored.number);
    else
        config->write(row.key, stored.number != 0);
}

static void put_back()
{
    const scim::ConfigPointer config = create_config();
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_configuration(SETTINGS[i]) &&
            describe(read_stored(config, SETTINGS[i])) != describe(saved[i]))
            write(config, SETTINGS[i], saved[i]);
    config->flush();
    config->reload();
    Differences differences;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_configuration(SETTINGS[i]))
            differences.compare(SETTINGS[i].key, describe(saved[i]),
                                describe(read_stored(config, SETTINGS[i])));
    differences.fail_if_any();
}

template <class Value>
static Value read(const scim::ConfigPointer &config, const char *key, Value other)
{
    Value value = other;
    expect(CALL(config->read(key, &value)), true);
    return value;
}

/// Writes each setting of this form in one process, and reads it in the same and in another process.
/// Neighbouring settings get different values, so that a mix-up shows.
template <class Value>
static void check_round_trip(SettingForm form)
{
    for (const bool first : {false, true}) {
        const auto each = [&](auto work) {
            bool value = first;
            for (const SettingRow &row : SETTINGS)
                if (is_in_configuration(row) && row.form == form)
                    work(row.key, static_cast<Value>(value)), value = !value;
        };
        const auto read_all = [&](const scim::ConfigPointer &config) {
            each([&](const char *key, Value value) {
                expect(read(config, key, static_cast<Value>(!value)), value);
            });
        };
        run_in_process([&] {
            const scim::ConfigPointer config = create_config();
            each([&](const char *key, Value value) { expect(CALL(config->write(key, value)), true); });
            read_all(config);
            expect(CALL(config->flush()), true);
        });
        run_in_process([&] { read_all(create_config()); });
    }
}

static constexpr Check CHECKS[] = {
    {"the module \"socket\" and its configuration can be opened",
     "The service would back up and restore nothing.", [] { create_config(); }},

    {"the module can be opened again while it is open, and afterwards",
     "The service would back up and restore only the first record.",
     [] {
         const scim::ConfigPointer first = create_config();
         for (int i = 0; i < 3; i++)
             create_config();
         create_config();
     }},

    {"read() returns false for a missing key, and leaves its output untouched",
     "The service would back up an unset switch as off, although an unset switch is on.",
     [] {
         const scim::ConfigPointer config = create_config();
         expect_not_set(config);
         expect(CALL(config->read(MISSING_KEY, 1)), 1);
         expect(CALL(config->read(MISSING_KEY, true)), true);
     }},

    {"create_config() returns an empty handle when the daemon is not running",
     "The service would back up default values, and report a failed restore as a success.",
     [] {
         for (const char *variable : {"SCIM_SOCKET_ADDRESS", "SCIM_CONFIG_SOCKET_ADDRESS"})
             setenv(variable, "local:/nonexistent/ime-backup-check", 1);
         const scim::ConfigModule module("socket");
         const scim::ConfigPointer config = CALL(module.create_config());
         if (config.null())
             return;
         if (!config->valid())
             fail("an empty handle", "a configuration that is not valid");
         bool is_any_set = false;
         for (size_t i = 0; i < SETTINGS.size(); i++)
             if (is_in_configuration(SETTINGS[i]) && saved[i].is_set) {
                 is_any_set = true;
                 if (read_stored(config, SETTINGS[i]).is_set)
                     skip("the daemon can't be hidden from the library");
             }
         if (!is_any_set)
             skip("no setting is set, so a running daemon looks like a missing daemon");
         fail("an empty handle", "a configuration");
     }},

    {"every process can read an integer that was written and flushed", "A restored switch would not change.",
     [] { check_round_trip<int>(SettingForm::integer_switch); }, Check::changes},

    {"every process can read a boolean that was written and flushed", "A restored switch would not change.",
     [] { check_round_trip<bool>(SettingForm::boolean_switch); }, Check::changes},

    {"reload() returns true, and keeps flushed values",
     "A restore would end before the keyboard knows the restored settings.",
     [] {
         const SettingRow &row = *std::ranges::find(SETTINGS, SettingForm::integer_switch, &SettingRow::form);
         run_in_process([&] {
             const scim::ConfigPointer config = create_config();
             config->write(row.key, 1);
             expect(CALL(config->flush()), true);
             expect(CALL(config->reload()), true);
             expect(read(config, row.key, 0), 1);
         });
         run_in_process([&] { expect(read(create_config(), row.key, 0), 1); });
     },
     Check::changes},
};

extern const Library SCIM = {"scim", CHECKS, save, put_back};
