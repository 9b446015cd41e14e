// Requests, records and device contents out of the ordinary.

#include "expected.h"

#include <gtest/gtest.h>

#include "ime_backup_operations.h"
#include "ime_backup_service_json_writer.h"

namespace
{

ScriptedPlatform asked_for(const std::string &operation)
{
    ScriptedPlatform platform;
    platform.operation = operation;
    return platform;
}

ScriptedPlatform restoring(const std::vector<std::optional<std::string>> &values)
{
    ScriptedPlatform platform = asked_for(OPERATION_RESTORE);
    platform.restored = values;
    platform.record_count = static_cast<int>(values.size());
    return platform;
}

TEST(Request, IsClassifiedByPrefix)
{
    const std::string backup = OPERATION_BACKUP;
    const std::string restore = OPERATION_RESTORE;
    const std::string get_info = OPERATION_GET_BACKUP_INFO;
    const struct {
        std::optional<std::string> operation;
        int registrations;
    } cases[] = {
        {std::nullopt, 0},
        {"", 0},
        {"backup", 0},
        {"https" + backup.substr(4), 0},
        {backup, 4},
        {backup + "_of_something", 4},
        {backup.substr(0, backup.size() - 1), 0},
        {restore, 4},
        {restore + "/", 4},
        {restore.substr(0, restore.size() - 1), 0},
        {get_info, 3},
        {get_info + "?", 3},
        {get_info.substr(0, get_info.size() - 1), 0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.operation.value_or("null"));
        ScriptedPlatform platform;
        platform.operation = test.operation;
        platform.restored = {std::nullopt};
        platform.run();
        const Trace registrations =
            platform.only({"orvanta_cloud_backup_record_set_", "orvanta_cloud_restore_record_set_"});
        EXPECT_EQ(registrations.size(), test.registrations);
        EXPECT_EQ(platform.count("app_control_reply"), 1);
        EXPECT_EQ(platform.exited, test.registrations != 0)
            << "an unknown operation leaves the service running";
    }
}

TEST(Request, ReplyHandleOfAFailedCreateIsDestroyed)
{
    ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
    platform.failing_function = "app_control_create";
    platform.fails_with_effect = true;
    EXPECT_EQ(
        join(platform.run()),
        join({"orvanta_cloud_initialize()", "app_control_get_operation(<request>)", "app_control_create()",
              error(SERVICE, "__service_app_control_cb", "app_control_create() failed, ret = [-7]\n"),
              "app_control_destroy(<reply>)", "orvanta_cloud_deinitialize()"}));
}

TEST(Completed, FailureIsLoggedAndEndsTheService)
{
    for (const auto &[operation, callback] : {std::pair(OPERATION_BACKUP, "__backup_completed_cb"),
                                              std::pair(OPERATION_RESTORE, "__restore_completed_cb")}) {
        ScriptedPlatform platform = asked_for(operation);
        platform.restored = {std::nullopt};
        platform.result = 0;
        const Trace &trace = platform.run();
        EXPECT_EQ(join({trace.end() - 3, trace.end()}),
                  join({error(SERVICE, callback, callback + std::string("() failed.")), "service_app_exit()",
                        "orvanta_cloud_deinitialize()"}));
    }
}

TEST(BackupRecords, CountDecides)
{
    const std::string nothing = "orvanta_cloud_backup_record_send_backup_path(null, 0)";
    const std::string no_count =
        error(SERVICE, "__backup_record_cb", "orvanta_cloud_list_get_record_count() failed.");
    const struct {
        int count;
        bool null_list;
        bool failure;
        size_t destroyed; ///< once more for the list of keys and dates
        size_t snapshots;
    } cases[] = {
        {0, false, true, 2, 0},  {1, true, false, 1, 0},  {-1, false, false, 2, 0},
        {1, false, false, 2, 1}, {2, false, false, 2, 2}, {3, false, false, 2, 3},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(std::to_string(test.count) + (test.null_list ? " null" : ""));
        ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
        platform.record_count = test.count;
        platform.null_list = test.null_list;
        platform.run();
        EXPECT_EQ(platform.count(no_count), test.failure);
        EXPECT_EQ(platform.count(nothing), test.failure || test.null_list);
        EXPECT_EQ(platform.count("orvanta_cloud_file_create_file"), !test.failure && !test.null_list);
        EXPECT_EQ(platform.count("orvanta_cloud_list_destroy"), test.destroyed);
        EXPECT_EQ(platform.count("ConfigModule"), test.snapshots);
        EXPECT_EQ(platform.count("orvanta_cloud_record_set_value(<record"), test.snapshots);
        EXPECT_EQ(platform.count("orvanta_cloud_list_move_to_next"),
                  test.snapshots > 0 ? test.snapshots - 1 : 0);
    }
}

TEST(BackupRecords, NothingOfOneRecordReachesTheNext)
{
    // Of three records the second has no snapshot, then no handle: its failure stays its own.
    for (const char *failed : {"create_config", "orvanta_cloud_list_get_current_record"}) {
        ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
        platform.record_count = 3;
        platform.failing_function = failed;
        platform.failing_occurrence = 2;
        platform.run();
        const Trace values = platform.only({"orvanta_cloud_record_set_value"});
        ASSERT_EQ(values.size(), 2);
        EXPECT_TRUE(values[0].find("<record0>") != std::string::npos);
        EXPECT_TRUE(values[1].find("<record2>") != std::string::npos);
    }
}

TEST(RestoreRecords, EachIsKeyedOrFailed)
{
    ScriptedPlatform platform = restoring({"{}", std::nullopt, "no JSON", "{}"});
    platform.run();
    EXPECT_EQ(join(platform.only({"orvanta_cloud_record_set_key", "orvanta_cloud_record_set_date",
                                  "orvanta_cloud_record_set_fail", "ConfigModule",
                                  "orvanta_cloud_restore_record_send_record_list"})),
              join({R"(ConfigModule("socket"))", R"(orvanta_cloud_record_set_key(<record0>, "0"))",
                    R"(orvanta_cloud_record_set_date(<record0>, "1700000000999"))",
                    "orvanta_cloud_record_set_fail(<record1>)", R"(ConfigModule("socket"))",
                    "orvanta_cloud_record_set_fail(<record2>)", R"(ConfigModule("socket"))",
                    R"(orvanta_cloud_record_set_key(<record3>, "3"))",
                    R"(orvanta_cloud_record_set_date(<record3>, "1700000000999"))",
                    "orvanta_cloud_restore_record_send_record_list(<list>, 1)"}));
}

TEST(RestoreRecords, AnEmptyListIsAFailureAndANegativeCountIsNone)
{
    ScriptedPlatform platform = restoring({});
    platform.run();
    EXPECT_EQ(platform.count("orvanta_cloud_restore_record_send_record_list(null, 0)"), 1);
    EXPECT_EQ(platform.count("orvanta_cloud_list_destroy(<list>)"), 1);

    platform = restoring({});
    platform.record_count = -1;
    platform.run();
    EXPECT_EQ(platform.count("orvanta_cloud_restore_record_send_record_list(<list>, 1)"), 1);
}

TEST(RestoreRecords, AValueThatComesWithAFailureIsApplied)
{
    ScriptedPlatform platform = restoring({"{}"});
    platform.failing_function = "orvanta_cloud_record_get_value";
    platform.fails_with_effect = true;
    platform.run();
    EXPECT_EQ(
        platform.count(error(SERVICE, "__restore_record_cb", "orvanta_cloud_record_get_value() failed.")), 1);
    EXPECT_EQ(platform.count("orvanta_cloud_record_set_key(<record0>"), 1);
}

/// The member of a snapshot that holds these languages.
std::string languages(const std::vector<std::string> &identifiers)
{
    std::string members;
    for (const std::string &identifier : identifiers)
        members += (members.empty() ? "" : ",") + (R"({"lang_id":")" + identifier) + "\"}";
    return R"("selected_lang":[)" + members + "]";
}

/// The line with the one snapshot that `platform` yields.
std::string snapshot_of(ScriptedPlatform &platform)
{
    platform.run();
    const Trace values = platform.only({"orvanta_cloud_record_set_value(<record0>, "});
    return values.size() == 1 ? values[0] : "";
}

TEST(Writer, LanguagesAreSplitAndSortedByByte)
{
    const struct {
        std::string stored;
        std::vector<std::string> languages;
    } cases[] = {
        {"en_US#ko_KR#", {"en_US", "ko_KR"}},
        {"ko_KR#en_US#", {"en_US", "ko_KR"}},
        {"en_US#ko_KR", {"en_US", "ko_KR"}},
        {"en_US##ko_KR#", {"", "en_US", "ko_KR"}},
        {"#", {""}},
        {"", {}},
        {"ko_KR#ko_KR#", {"ko_KR", "ko_KR"}},
        {"en_us#EN_US#en#", {"EN_US", "en", "en_us"}},
        {"\xc3\xa9#z#", {"z", "\xc3\xa9"}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.stored);
        ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
        platform.strings["db/ise/engine/lpm/selected_lang"] = test.stored;
        EXPECT_NE(snapshot_of(platform).find(languages(test.languages)), std::string::npos);
    }
}

TEST(Writer, TheCatalogueIsAskedEachTime)
{
    ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
    platform.translated = "tr_TR#";
    platform.strings["tr_TR#"] = "de_DE#";
    EXPECT_NE(snapshot_of(platform).find(R"([{"lang_id":"de_DE"}])"), std::string::npos);
}

TEST(Writer, BooleansFollowTheirTypes)
{
    ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
    platform.bools = {{"db/ise/hand_write", 0}, {"db/ise/engine/prediction_val", 2}};
    platform.config = {{"keyloom/auto_spacing_val", 0},
                       {"keyloom/auto_capitalization_val", -3},
                       {"keyloom/auto_punctuate_val", 0},
                       {"keyloom/key_sounds_val", 2},
                       {"keyloom/key_vibration_val", 0}};
    EXPECT_NE(snapshot_of(platform).find(
                  R"("handwriting":false,"prediction":true,"auto_space":false,"auto_capitalize":true,)"
                  R"("auto_punctuation":false,"key_tap_sound":true,"key_tap_vib":false})"),
              std::string::npos);
}

TEST(Writer, AnUnreadableBooleanIsTrueWhateverTheOneBeforeIs)
{
    ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
    platform.bools["db/ise/hand_write"] = 0;
    platform.failing_function = "vconf_get_bool";
    platform.failing_occurrence = 2;
    EXPECT_NE(snapshot_of(platform).find(R"("handwriting":false,"prediction":true)"), std::string::npos);
}

TEST(Writer, NoSnapshotWithoutAKeyboardOrInBrokenText)
{
    const std::string function = "_ime_backup_get_json_value";
    ScriptedPlatform platform = asked_for(OPERATION_BACKUP);
    platform.active_ime_result = 0;
    EXPECT_EQ(snapshot_of(platform), "");
    EXPECT_EQ(platform.count(error(WRITER, function, "Failed to get active ime. error: [0]")), 1);

    platform = asked_for(OPERATION_BACKUP);
    platform.strings["db/ise/engine/lpm/selected_lang"] = "\xff#";
    EXPECT_EQ(snapshot_of(platform), "");
    EXPECT_EQ(platform.count(error(WRITER, function, "Fail: Data in invalid format")), 1);
    EXPECT_EQ(platform.count("orvanta_cloud_backup_record_send_backup_path"), 1);
}

TEST(Writer, RefusesNullArguments)
{
    ScriptedPlatform noting;
    platform = &noting;
    char untouched[] = "untouched";
    char *text = untouched;
    gsize length = 42;
    EXPECT_EQ(_ime_backup_get_json_value(&text, nullptr), -1);
    EXPECT_EQ(_ime_backup_get_json_value(nullptr, &length), -1);
    EXPECT_EQ(text, untouched);
    EXPECT_EQ(length, 42);
    const std::string line = error(WRITER, "_ime_backup_get_json_value", "Fail:Invalid Input Parameter");
    EXPECT_EQ(join(noting.trace), join({line, line}));
    platform = nullptr;
}

/// What a restore does to the device, without the five configuration values.
std::string device_changes(ScriptedPlatform &platform)
{
    platform.run();
    return join(platform.only({"isf_control", "vconf_keylist_add_str", "vconf_set_bool", "4 " + PARSER}));
}

TEST(Restorer, FiltersLanguagesAndHandwriting)
{
    const struct {
        std::string members;
        std::string downloaded;
        std::string with_handwriting;
        std::optional<std::string> selection;
        int handwriting;
    } cases[] = {
        // The snapshot's order is kept, what is not downloaded is dropped.
        {R"("handwriting":true,)" + languages({"ko_KR", "fr_FR", "en_US"}), "en_US#ko_KR#", "en_US#",
         "ko_KR#en_US#", 1},
        {R"("handwriting":true,)" + languages({"ko_KR"}), "en_US#ko_KR#", "en_US#", "ko_KR#", 0},
        {R"("handwriting":false,)" + languages({"en_US"}), "en_US#", "en_US#", "en_US#", 0},
        {R"("handwriting":true,)" + languages({"fr_FR"}), "en_US#", "fr_FR#", std::nullopt, 0},
        {R"("handwriting":true,)" + languages({}), "en_US#", "en_US#", std::nullopt, 0},
        // Part of an entry will do, and an empty identifier is part of any list.
        {R"("handwriting":true,)" + languages({"en"}), "en_US#ko_KR#", "en_US#", "en#", 1},
        {R"("handwriting":true,)" + languages({""}), "", "", "#", 1},
        {R"("handwriting":false,)" + languages({"en_US", "en_US"}), "en_US#", "", "en_US#en_US#", 0},
        // Missing or mistyped members.
        {languages({"en_US"}), "en_US#", "en_US#", "en_US#", 0},
        {R"("handwriting":1,"selected_lang":{"lang_id":"en_US"})", "en_US#", "en_US#", std::nullopt, 0},
        {R"("handwriting":true,"selected_lang":[null,1,"en_US",[],{},{"lang_id":7},{"lang_id":"en_US"}])",
         "en_US#", "en_US#", "en_US#", 1},
        {R"("handwriting":"true","selected_lang":null)", "en_US#", "en_US#", std::nullopt, 0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.members);
        ScriptedPlatform platform = restoring({"{" + test.members + "}"});
        platform.strings["db/ise/engine/lpm/downloaded_lang"] = test.downloaded;
        platform.strings["db/ise/engine/lpm/downloaded_with_handwriting_lang"] = test.with_handwriting;
        Trace expected;
        if (test.selection)
            expected.push_back(R"(vconf_keylist_add_str("db/ise/engine/lpm/selected_lang", ")" +
                               *test.selection + "\")");
        expected.push_back(R"(vconf_set_bool("db/ise/hand_write", )" + std::to_string(test.handwriting) +
                           ")");
        expected.push_back(R"(vconf_set_bool("db/ise/engine/prediction_val", 0))");
        EXPECT_EQ(device_changes(platform), join(expected));
    }
}

TEST(Restorer, OnlyZeroMeansThatTheSelectionIsStored)
{
    ScriptedPlatform platform = restoring({"{" + languages({"en_US"}) + "}"});
    platform.failing_function = "vconf_set";
    platform.failure_code = 1;
    platform.run();
    EXPECT_EQ(platform.count(error(UTILITY, "update_vconfkeys",
                                   "vconf keys for key [db/ise/engine/lpm/selected_lang] not updated")),
              1);
}

TEST(Restorer, AnEmptyIdentifierIsFoundInAListThatCannotBeRead)
{
    ScriptedPlatform platform = restoring({"{" + languages({""}) + "}"});
    platform.failing_function = "vconf_get_str";
    platform.run();
    EXPECT_EQ(platform.count("vconf_keylist_add_str"), 1);
}

TEST(Restorer, SwitchesTheKeyboardOnlyWhenItDiffers)
{
    const std::string ask = "isf_control_get_active_ime()";
    const struct {
        std::string members;
        Trace expected;
    } cases[] = {
        {R"("default_keyboard":"kbd1")",
         {ask, info(PARSER, "_ime_restore_json_value", "==== Keep current keyboard ====")}},
        {R"("default_keyboard":"KBD1")", {ask, R"(isf_control_set_active_ime("KBD1"))"}},
        {R"("default_keyboard":"")", {}},
        {R"("default_keyboard":7)", {}},
        {R"("default_keyboard":null)", {}},
        {R"("other":"")", {}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.members);
        ScriptedPlatform platform = restoring({"{" + test.members + "}"});
        platform.run();
        EXPECT_EQ(join(platform.only({"isf_control", "4 " + PARSER})), join(test.expected));
    }
}

TEST(Restorer, TellsJsonFromOtherText)
{
    const std::string failure = error(PARSER, "_ime_restore_json_value", "json_parser_load_from_data fail");
    const struct {
        std::string text;
        bool json;
    } cases[] = {
        {"", false},         {" \n\t", false}, {"{", false}, {R"({"handwriting":})", false},
        {"settings", false}, {"[]", true},     {"7", true},  {"null", true},
        {"{}", true},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.text);
        ScriptedPlatform platform = restoring({test.text});
        platform.run();
        EXPECT_EQ(platform.count(failure), !test.json);
        EXPECT_EQ(platform.count("vconf_set_bool"), test.json ? 2 : 0);
        EXPECT_EQ(platform.count("config write"), test.json ? 5 : 0);
        EXPECT_EQ(platform.count("orvanta_cloud_record_set_fail"), !test.json);
    }
}

TEST(Restorer, WritesEachConfigurationValueInItsForm)
{
    ScriptedPlatform platform = restoring({R"({"auto_space":true,"auto_capitalize":false,)"
                                           R"("auto_punctuation":true,"key_tap_sound":false})"});
    platform.run();
    EXPECT_EQ(join(platform.only({"config "})),
              join({R"(config write("int", "keyloom/auto_spacing_val", 1))",
                    R"(config write("int", "keyloom/auto_capitalization_val", 0))",
                    R"(config write("bool", "keyloom/auto_punctuate_val", 1))",
                    R"(config write("int", "keyloom/key_sounds_val", 0))",
                    R"(config write("int", "keyloom/key_vibration_val", 0))", "config flush()",
                    "config reload()", "config released"}));
}

} // namespace
