// Results of the service's functions that no trace shows.

#include "scripted_platform.h"

#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "ime_backup_service_json_parser.h"
#include "ime_backup_service_json_writer.h"

namespace
{

constexpr char KEY[] = "db/ise/engine/lpm/selected_lang";

class Results : public testing::Test
{
protected:
    /// Starts with a new platform whose `function` fails.
    void fail(const char *function)
    {
        EXPECT_EQ(scripted.live_handles, 0);
        scripted = {};
        scripted.given["fail"] = function;
    }

    void SetUp() override { platform = &scripted; }
    void TearDown() override { platform = nullptr; }

    ScriptedPlatform scripted;
};

TEST_F(Results, ReadDistinguishesAMissingKeyFromAKeyWithoutAString)
{
    for (const auto &[function, expected] :
         {std::pair("", 1), {"vconf_get", 2}, {"vconf_keylist_lookup", 0}, {"vconf_keynode_get_str", 0}}) {
        fail(function);
        char untouched[] = "untouched";
        char *value = untouched;
        EXPECT_EQ(read_vconfkeys(KEY, &value), expected) << function;
        EXPECT_STREQ(value, expected == 1 ? "ko_KR#en_US#" : "untouched");
        if (value != untouched)
            free(value);
    }
}

TEST_F(Results, UpdateFailsOnlyWhenTheListRefusesTheText)
{
    for (const auto &[function, expected] :
         {std::pair("", 1), {"vconf_keylist_add_str", 0}, {"vconf_set", 1}}) {
        fail(function);
        EXPECT_EQ(update_vconfkeys(KEY, "fr_FR#"), expected) << function;
    }
}

TEST_F(Results, WriterSetsTextAndLengthOnlyOnSuccess)
{
    for (const char *function : {"", "ConfigModule", "create_config", "isf_control_get_active_ime", "text"}) {
        fail(function);
        if (strcmp(function, "text") == 0)
            scripted.given[KEY] = "\xff#";
        const bool succeeds = *function == '\0';
        char untouched[] = "untouched";
        char *text = untouched;
        gsize length = strlen(text);
        EXPECT_EQ(_ime_backup_get_json_value(&text, &length), succeeds ? 0 : -1) << function;
        EXPECT_EQ(text != untouched, succeeds);
        EXPECT_EQ(strlen(text), length);
        if (text != untouched)
            g_free(text);
    }
}

TEST_F(Results, NullIsRefused)
{
    char *text = nullptr;
    gsize length = 42;
    EXPECT_EQ(_ime_backup_get_json_value(&text, nullptr), -1);
    EXPECT_EQ(_ime_backup_get_json_value(nullptr, &length), -1);
    EXPECT_FALSE(_ime_restore_json_value(nullptr));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(length, 42);
    const std::string line = "E(_ime_backup_get_json_value) Fail:Invalid Input Parameter";
    EXPECT_EQ(scripted.trace, Trace({line, line})) << "_ime_restore_json_value() logs nothing";
}

} // namespace
