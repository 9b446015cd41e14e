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

/// What a key holds: a value of the setting's type, or else any text.
struct Held {
    bool is_set;
    int number;
    char text[200];
};

} // namespace

/// What the settings held before the checks, by their rows.
static auto &saved = *make_shared_memory<std::array<Held, SETTINGS.size()>>();

static constexpr char MISSING[] = "keyloom/ime_backup_check/missing";

static scim::ConfigPointer create_config()
{
    const auto *module = new scim::ConfigModule("socket"); // never deleted, as in the service
    expect(CALL(module->valid()), true);
    scim::ConfigPointer config = CALL(module->create_config());
    if (config.null())
        fail("a configuration", "an empty handle");
    return config;
}

static bool is_configured(const SettingRow &row)
{
    return row.place == SettingPlace::configuration;
}

static Held look(const scim::ConfigPointer &config, const SettingRow &row)
{
    Held held = {};
    bool truth = false;
    scim::String text;
    if (row.form == SettingForm::integer_switch)
        held.is_set = CALL(config->read(row.key, &held.number));
    else if (held.is_set = CALL(config->read(row.key, &truth)); held.is_set)
        held.number = truth ? 1 : 0;
    if (!held.is_set && CALL(config->read(row.key, &text)))
        text.copy(held.text, sizeof held.text - 1);
    return held;
}

static void expect_not_set(const scim::ConfigPointer &config)
{
    int number = 42;
    bool truth = true;
    expect(CALL(config->read(MISSING, &number)), false);
    expect(number, 42, "the output: ");
    expect(CALL(config->read(MISSING, &truth)), false);
    expect(truth, true, "the output: ");
}

static void save()
{
    const scim::ConfigPointer config = create_config();
    expect_not_set(config); // else what is not set could not be put back
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_configured(SETTINGS[i]))
            saved[i] = look(config, SETTINGS[i]);
}

static std::string describe(const Held &held)
{
    return held.is_set ? show(held.number) : *held.text != '\0' ? show(held.text) : "not set";
}

static void write(const scim::ConfigPointer &config, const SettingRow &row, const Held &held)
{
    if (!held.is_set && *held.text == '\0')
        config->erase(row.key);
    else if (!held.is_set)
        config->write(row.key, scim::String(held.text));
    else if (row.form == SettingForm::integer_switch)
        config->write(row.key, held.number);
    else
        config->write(row.key, held.number != 0);
}

static void put_back()
{
    const scim::ConfigPointer config = create_config();
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_configured(SETTINGS[i]) && describe(look(config, SETTINGS[i])) != describe(saved[i]))
            write(config, SETTINGS[i], saved[i]);
    config->flush();
    config->reload();
    Differences differences;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_configured(SETTINGS[i]))
            differences.compare(SETTINGS[i].key, describe(saved[i]), describe(look(config, SETTINGS[i])));
    differences.end();
}

template <class Value>
static Value read(const scim::ConfigPointer &config, const char *key, Value other)
{
    Value value = other;
    expect(CALL(config->read(key, &value)), true);
    return value;
}

/// Each setting of a form is written in one process, and read there and in another. Neighbours differ.
template <class Value>
static void check_round_trip(SettingForm form)
{
    for (const bool first : {false, true}) {
        const auto each = [&](auto work) {
            bool value = first;
            for (const SettingRow &row : SETTINGS)
                if (is_configured(row) && row.form == form)
                    work(row.key, static_cast<Value>(value)), value = !value;
        };
        const auto read_all = [&](const scim::ConfigPointer &config) {
            each([&](const char *key, Value value) {
                expect(read(config, key, static_cast<Value>(!value)), value);
            });
        };
        run_apart([&] {
            const scim::ConfigPointer config = create_config();
            each([&](const char *key, Value value) { expect(CALL(config->write(key, value)), true); });
            read_all(config);
            expect(CALL(config->flush()), true);
        });
        run_apart([&] { read_all(create_config()); });
    }
}

static constexpr Check CHECKS[] = {
    {"the module \"socket\" opens, and its configuration", "It would back up and restore nothing.",
     [] { create_config(); }},

    {"the module opens again while it is open, and after",
     "It would back up only the first record, and restore only that.",
     [] {
         const scim::ConfigPointer first = create_config();
         for (int i = 0; i < 3; i++)
             create_config();
         create_config();
     }},

    {"read() of a key that is not set gives false, and leaves its output untouched",
     "It would back up a switch that is not set as off, and it stands for on.",
     [] {
         const scim::ConfigPointer config = create_config();
         expect_not_set(config);
         expect(CALL(config->read(MISSING, 1)), 1);
         expect(CALL(config->read(MISSING, true)), true);
     }},

    {"create_config() gives an empty handle when the daemon is away",
     "It would back up defaults as the settings, and tell that a restore succeeded.",
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
             if (is_configured(SETTINGS[i]) && saved[i].is_set) {
                 is_any_set = true;
                 if (look(config, SETTINGS[i]).is_set)
                     skip("the daemon can't be hidden from the library");
             }
         if (!is_any_set)
             skip("no setting is set, so that a daemon that answers looks like none");
         fail("an empty handle", "a configuration");
     }},

    {"an integer that is written and flushed is read by each process", "A restored switch would not change.",
     [] { check_round_trip<int>(SettingForm::integer_switch); }, Check::changes},

    {"a boolean that is written and flushed is read by each process", "A restored switch would not change.",
     [] { check_round_trip<bool>(SettingForm::boolean_switch); }, Check::changes},

    {"reload() gives true, and leaves what was flushed",
     "A restore would end before the keyboard knows of it.",
     [] {
         const SettingRow &row = *std::ranges::find(SETTINGS, SettingForm::integer_switch, &SettingRow::form);
         run_apart([&] {
             const scim::ConfigPointer config = create_config();
             config->write(row.key, 1);
             expect(CALL(config->flush()), true);
             expect(CALL(config->reload()), true);
             expect(read(config, row.key, 0), 1);
         });
         run_apart([&] { expect(read(create_config(), row.key, 0), 1); });
     },
     Check::changes},
};

extern const Library SCIM = {"scim", CHECKS, save, put_back};
