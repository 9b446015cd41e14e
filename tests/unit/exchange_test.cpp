// Whole exchanges: their traces when all goes well, and when each call in turn fails.

#include "expected.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "ime_backup_service.h"

namespace
{

const std::string SNAPSHOT =
    R"({"default_keyboard":"kbd1","selected_lang":[{"lang_id":"en_US"},{"lang_id":"ko_KR"}],)"
    R"("handwriting":true,"prediction":true,"auto_space":true,"auto_capitalize":true,)"
    R"("auto_punctuation":true,"key_tap_sound":true,"key_tap_vib":true})";
const std::string BACKUP_DAT = R"("/opt/usr/apps/com.orvanta.ime-backup-service/shared/trusted/backup.dat")";
const std::string RESTORE_DAT =
    R"("/opt/usr/apps/com.orvanta.ime-backup-service/shared/trusted/restore.dat")";
const std::string SELECTED = R"("db/ise/engine/lpm/selected_lang")";

/// What one callback does.
struct Section {
    std::string callback;
    Trace lines;
};
using Sections = std::vector<Section>;

const std::string WRITER_NAME = "_ime_backup_get_json_value";
const std::string PARSER_NAME = "_ime_restore_json_value";

/// How the trace differs from the one without failures: by these lines behind the failed call, and the
/// expected line with which it then goes on (the next one, if none is named). Without a row, a failure is
/// logged by its callback with its code, and nothing else changes.
struct Deviation {
    std::string callback;
    std::string call; ///< as far as it goes; the last row that fits is the one
    Trace lines;
    std::string resume = "";
    std::pair<std::string, std::string> replace = {}; ///< in the rest of the callback's lines
    int only_code = 0;                                ///< the row is for this failure code, if for one
};

Trace flatten(const Sections &sections)
{
    Trace trace;
    for (const Section &section : sections)
        trace.insert(trace.end(), section.lines.begin(), section.lines.end());
    return trace;
}

std::string replaced(std::string text, const std::pair<std::string, std::string> &pair)
{
    if (const size_t at = text.find(pair.first); !pair.first.empty() && at != std::string::npos)
        text.replace(at, pair.first.size(), pair.second);
    return text;
}

std::string with_code(const std::string &text, int code)
{
    return replaced(text, {"CODE", std::to_string(code)});
}

/// Lines that note something other than a call that can fail.
bool is_call(const std::string &line)
{
    for (const char *prefix : {"4 ", "6 ", "gettext", "config released", "vconf_keylist_new",
                               "vconf_keylist_free", "service_app_exit", "print "})
        if (line.starts_with(prefix))
            return false;
    return true;
}

/// The trace that is expected when the call on line `position` fails.
Trace trace_with_failure(const Sections &sections, size_t position, const std::vector<Deviation> &deviations,
                         int code)
{
    const Trace all = flatten(sections);
    size_t end = 0;
    const Section &section = *std::find_if(sections.begin(), sections.end(), [&](const Section &candidate) {
        end += candidate.lines.size();
        return position < end;
    });

    const std::string call = all[position].substr(0, all[position].find('('));
    Deviation deviation{
        "", "", {error(SERVICE, section.callback, call + "() failed, error_code = [CODE]\n")}};
    for (const Deviation &candidate : deviations)
        if (candidate.callback == section.callback && all[position].starts_with(candidate.call) &&
            (candidate.only_code == 0 || candidate.only_code == code))
            deviation = candidate;

    Trace expected(all.begin(), all.begin() + static_cast<ptrdiff_t>(position) + 1);
    for (const std::string &line : deviation.lines)
        expected.push_back(with_code(line, code));
    size_t next = position + 1;
    while (next < all.size() && !all[next].starts_with(deviation.resume))
        next++;
    for (; next < all.size(); next++)
        expected.push_back(next < end ? replaced(all[next], deviation.replace) : all[next]);
    return expected;
}

struct Scenario {
    std::string name;
    ScriptedPlatform platform;
    Sections sections;
    std::vector<Deviation> deviations;
};

void PrintTo(const Scenario &scenario, std::ostream *stream)
{
    *stream << scenario.name;
}

Trace registered(const std::string &operation, const std::vector<std::string> &callbacks)
{
    Trace trace = {"orvanta_cloud_initialize()", "app_control_get_operation(<request>)",
                   "app_control_create()"};
    if (operation == "BACKUP" || operation == "RESTORE")
        trace.push_back(
            info(SERVICE, "__service_app_control_cb", "==== ORVANTA_CLOUD_OPERATION_" + operation + " ===="));
    for (const std::string &callback : callbacks)
        trace.push_back(callback + "()");
    trace.insert(trace.end(), {"app_control_reply_to_launch_request(<reply>, <request>, 0)",
                               "app_control_destroy(<reply>)"});
    return trace;
}

const std::vector<std::string> BACKUP_REGISTRATIONS = {
    "orvanta_cloud_backup_record_set_preparation_cb",
    "orvanta_cloud_backup_record_set_sending_keys_and_dates_cb",
    "orvanta_cloud_backup_record_set_backup_cb",
    "orvanta_cloud_backup_record_set_completed_cb",
};
const std::vector<std::string> INFO_REGISTRATIONS = {BACKUP_REGISTRATIONS[0], BACKUP_REGISTRATIONS[1],
                                                     BACKUP_REGISTRATIONS[3]};
const std::vector<std::string> RESTORE_REGISTRATIONS = {
    "orvanta_cloud_restore_record_set_preparation_cb",
    "orvanta_cloud_restore_record_set_sending_restoration_path_cb",
    "orvanta_cloud_restore_record_set_restoration_cb",
    "orvanta_cloud_restore_record_set_completed_cb",
};

const Section PREPARE_BACKUP = {"__backup_prepare_cb",
                                {
                                    info(SERVICE, "__backup_prepare_cb", "==== __backup_prepare_cb ===="),
                                    "orvanta_cloud_backup_record_send_preparation_completed_response(1)",
                                }};
const Section KEYS_AND_DATES = {
    "__backup_get_keys_dates_cb",
    {
        info(SERVICE, "__backup_get_keys_dates_cb", "==== __backup_get_keys_dates_cb ===="),
        "orvanta_cloud_list_create()",
        "orvanta_cloud_record_create()",
        R"(orvanta_cloud_record_set_key(<new record>, "0"))",
        R"(orvanta_cloud_record_set_date(<new record>, "1700000000999"))",
        "orvanta_cloud_list_add(<list>, <new record>)",
        "orvanta_cloud_backup_record_send_keys_and_dates(<list>, 1)",
        "orvanta_cloud_list_destroy(<list>)",
    }};
const Section BACKUP_RECORD = {"__backup_record_cb",
                               {
                                   info(SERVICE, "__backup_record_cb", "==== _backup_record_cb ===="),
                                   "orvanta_cloud_list_get_record_count(<list>)",
                                   "orvanta_cloud_list_move_to_first(<list>)",
                                   "orvanta_cloud_list_get_current_record(<list>)",
                                   R"(ConfigModule("socket"))",
                                   "create_config()",
                                   "isf_control_get_active_ime()",
                                   error(WRITER, WRITER_NAME, "get active ime: [kbd1]"),
                                   "gettext(" + SELECTED + ")",
                                   "vconf_keylist_new()",
                                   "vconf_get(" + SELECTED + ", 0)",
                                   "vconf_keylist_lookup(" + SELECTED + ")",
                                   "vconf_keynode_get_str()",
                                   "vconf_keylist_free()",
                                   R"(vconf_get_bool("db/ise/hand_write"))",
                                   R"(vconf_get_bool("db/ise/engine/prediction_val"))",
                                   R"(config read("int", "keyloom/auto_spacing_val"))",
                                   R"(config read("int", "keyloom/auto_capitalization_val"))",
                                   R"(config read("bool", "keyloom/auto_punctuate_val"))",
                                   R"(config read("int", "keyloom/key_sounds_val"))",
                                   R"(config read("int", "keyloom/key_vibration_val"))",
                                   "config released",
                                   "orvanta_cloud_record_set_value(<record0>, \"" + SNAPSHOT + "\")",
                                   "orvanta_cloud_file_create_file(<list>, " + BACKUP_DAT + ")",
                                   "orvanta_cloud_backup_record_send_backup_path(" + BACKUP_DAT + ", 1)",
                                   "orvanta_cloud_list_destroy(<list>)",
                               }};
const Section TERMINATE = {"__service_app_terminate_cb", {"orvanta_cloud_deinitialize()"}};

Section completed(const std::string &callback)
{
    return {callback, {"service_app_exit()"}};
}

/// Failures on the way to a registered exchange, and at the service's end.
std::vector<Deviation> shell_deviations(const std::vector<std::string> &registrations, bool printed)
{
    const std::string control = "__service_app_control_cb";
    const std::string end = "orvanta_cloud_deinitialize";
    std::vector<Deviation> rows = {
        {control,
         "orvanta_cloud_initialize",
         {error(SERVICE, control, "orvanta_cloud_initialize() failed, error_code = [CODE]\n")},
         end},
        {control,
         "app_control_get_operation",
         {error(SERVICE, control, "app_control_get_operation() failed, ret = [CODE]\n")},
         end},
        {control,
         "app_control_create",
         {error(SERVICE, control, "app_control_create() failed, ret = [CODE]\n")},
         end},
        {control,
         "app_control_reply_to_launch_request",
         {"print app_control_reply_to_launch_request() failed, ret = [CODE]\n"}},
        {control,
         "app_control_destroy",
         {error(SERVICE, control, "app_control_destroy() failed, ret = [CODE]\n")}},
        {"__service_app_terminate_cb",
         end,
         {error(SERVICE, "__service_app_terminate_cb", "orvanta_cloud_deinitialize() failed.")}},
    };
    for (const std::string &registration : registrations) {
        const std::string failure = registration + "() failed, error_code = [CODE]\n";
        rows.push_back(
            {control,
             registration,
             {printed ? "print " + failure : error(SERVICE, control, failure), "app_control_destroy(<reply>)",
              error(SERVICE, control, "It is terminated with Orvanta Cloud failed, error_code = [CODE]\n"),
              "service_app_exit()"},
             end});
    }
    return rows;
}

std::vector<Deviation> with_list_and_record_rows(std::vector<Deviation> rows)
{
    const std::string keys = "__backup_get_keys_dates_cb";
    rows.push_back({keys,
                    "orvanta_cloud_list_create",
                    {error(SERVICE, keys, "orvanta_cloud_list_create() failed, error_code = [CODE]\n")},
                    "",
                    {"<list>", "null"}});
    rows.push_back({keys,
                    "orvanta_cloud_record_create",
                    {error(SERVICE, keys, "orvanta_cloud_record_create() failed, error_code = [CODE]\n")},
                    "",
                    {"<new record>", "null"}});
    return rows;
}

Scenario backup()
{
    ScriptedPlatform platform;
    platform.operation = OPERATION_BACKUP;
    platform.bools = {{"db/ise/hand_write", 1}, {"db/ise/engine/prediction_val", 1}};

    const std::string record = "__backup_record_cb";
    const std::string after_record = "orvanta_cloud_file_create_file";
    const std::string no_snapshot = error(SERVICE, record, "_ime_backup_get_json_value() failed");
    const std::pair<std::string, std::string> no_languages = {R"([{"lang_id":"en_US"},{"lang_id":"ko_KR"}])",
                                                              "[]"};
    const std::string key = SELECTED.substr(1, SELECTED.size() - 2);

    std::vector<Deviation> rows = with_list_and_record_rows(shell_deviations(BACKUP_REGISTRATIONS, false));
    rows.insert(
        rows.end(),
        {
            {record,
             "orvanta_cloud_list_get_record_count",
             {error(SERVICE, record, "orvanta_cloud_list_get_record_count() failed."),
              "orvanta_cloud_backup_record_send_backup_path(null, 0)", "orvanta_cloud_list_destroy(<list>)"},
             "service_app_exit"},
            {record,
             "orvanta_cloud_list_get_current_record",
             {error(SERVICE, record,
                    "orvanta_cloud_list_get_current_record() failed, error_code = [CODE]\n")},
             after_record},
            {record,
             "ConfigModule",
             {error(WRITER, WRITER_NAME, "Can't load config file"), no_snapshot},
             after_record},
            {record,
             "create_config",
             {error(WRITER, WRITER_NAME, "Failed to create Config instance from socket Config module."),
              no_snapshot},
             after_record},
            {record,
             "isf_control_get_active_ime",
             {error(WRITER, WRITER_NAME, "Failed to get active ime. error: [CODE]"), "config released",
              no_snapshot},
             after_record},
            {record,
             "vconf_get(",
             {error(UTILITY, "read_vconfkeys", "vconf_get() fails for vconf_key : " + key),
              "vconf_keylist_free()", "gettext(" + SELECTED + ")", R"(gettext("en_US#ko_KR#"))",
              "vconf_keylist_new()", "vconf_keylist_add_str(" + SELECTED + R"(, "en_US#ko_KR#"))",
              "vconf_set()",
              error(UTILITY, "update_vconfkeys",
                    "vconf keys for key [" + key + "] updated successfully [en_US#ko_KR#]"),
              "vconf_keylist_free()", R"(gettext("en_US#ko_KR#"))"},
             "vconf_get_bool"},
            {record,
             "vconf_keylist_lookup",
             {error(UTILITY, "read_vconfkeys", "conf_keylist_lookup() fails for vconf_key : " + key)},
             "vconf_keylist_free",
             no_languages},
            {record,
             "vconf_keynode_get_str",
             {error(UTILITY, "read_vconfkeys", "vconf_keynode_get_str() fails for vconf_key : " + key)},
             "vconf_keylist_free",
             no_languages},
            {record, "vconf_get_bool(", {}},
            {record,
             R"(vconf_get_bool("db/ise/hand_write"))",
             {error(WRITER, WRITER_NAME, "Failed to get VCONFKEY_ISE_HANDWRITING_VAL")},
             "",
             {},
             -1},
            {record,
             R"(vconf_get_bool("db/ise/engine/prediction_val"))",
             {error(WRITER, WRITER_NAME, "Failed to get VCONFKEY_ISE_PREDICTION_VAL")},
             "",
             {},
             -1},
            {record, "config read", {}},
        });
    return {"backup",
            platform,
            {{"__service_app_control_cb", registered("BACKUP", BACKUP_REGISTRATIONS)},
             PREPARE_BACKUP,
             KEYS_AND_DATES,
             BACKUP_RECORD,
             completed("__backup_completed_cb"),
             TERMINATE},
            rows};
}

Scenario backup_info()
{
    ScriptedPlatform platform;
    platform.operation = OPERATION_GET_BACKUP_INFO;
    return {"get backup info",
            platform,
            {{"__service_app_control_cb", registered("GET_BACKUP_INFO", INFO_REGISTRATIONS)},
             PREPARE_BACKUP,
             KEYS_AND_DATES,
             completed("__backup_completed_cb"),
             TERMINATE},
            with_list_and_record_rows(shell_deviations(INFO_REGISTRATIONS, true))};
}

Scenario restore()
{
    ScriptedPlatform platform;
    platform.operation = OPERATION_RESTORE;
    const std::string snapshot = replaced(SNAPSHOT, {"kbd1", "kbd2"});
    platform.restored = {snapshot};

    const std::string record = "__restore_record_cb";
    const std::string after_record = "orvanta_cloud_restore_record_send_record_list";
    const Trace set_fail = {info(SERVICE, record, "orvanta_cloud_record_set_fail"),
                            "orvanta_cloud_record_set_fail(<record0>)"};
    const auto rejected = [&](Trace lines) {
        lines.insert(lines.end(), set_fail.begin(), set_fail.end());
        return lines;
    };
    const std::string selection = "vconf_keylist_add_str(" + SELECTED + R"(, "en_US#ko_KR#"))";

    std::vector<Deviation> rows = shell_deviations(RESTORE_REGISTRATIONS, false);
    rows.insert(
        rows.end(),
        {
            {record,
             "orvanta_cloud_file_create_record_list",
             {error(SERVICE, record, "orvanta_cloud_file_create_record_list() failed, error_code = [CODE]\n"),
              "orvanta_cloud_restore_record_send_record_list(null, 0)"},
             "service_app_exit"},
            {record,
             "orvanta_cloud_list_get_record_count",
             {error(SERVICE, record, "orvanta_cloud_list_get_record_count() failed."),
              "orvanta_cloud_restore_record_send_record_list(null, 0)", "orvanta_cloud_list_destroy(<list>)"},
             "service_app_exit"},
            {record,
             "orvanta_cloud_list_move_to_first",
             {error(SERVICE, record, "orvanta_cloud_list_move_to_first() failed.")}},
            {record,
             "orvanta_cloud_list_get_current_record",
             {error(SERVICE, record,
                    "orvanta_cloud_list_get_current_record() failed, error_code = [CODE]\n")},
             after_record},
            {record, "orvanta_cloud_record_get_value",
             rejected({error(SERVICE, record, "orvanta_cloud_record_get_value() failed.")}), after_record},
            {record, "ConfigModule", rejected({error(PARSER, PARSER_NAME, "Can't load config file")}),
             after_record},
            {record, "create_config",
             rejected(
                 {error(PARSER, PARSER_NAME, "Failed to create Config instance from socket Config module.")}),
             after_record},
            {record, "isf_control_get_active_ime", {}},
            {record, "isf_control_set_active_ime", {}},
            {record,
             "vconf_keylist_add_str",
             {error(UTILITY, "update_vconfkeys", "vconf_keylist_add_str() failed ")},
             "vconf_keylist_free"},
            {record,
             "vconf_set(",
             {error(UTILITY, "update_vconfkeys",
                    "vconf keys for key [db/ise/engine/lpm/selected_lang] not updated")},
             "vconf_keylist_free"},
            {record,
             R"(vconf_get_str("db/ise/engine/lpm/downloaded_lang"))",
             {error(PARSER, PARSER_NAME, "Failed to read VCONFKEY_ISE_LPM_DOWNLOADED_LANG"),
              R"(vconf_get_str("db/ise/engine/lpm/downloaded_with_handwriting_lang"))",
              R"(vconf_set_bool("db/ise/hand_write", 0))"},
             R"(vconf_set_bool("db/ise/engine/prediction_val")"},
            {record,
             R"(vconf_get_str("db/ise/engine/lpm/downloaded_with_handwriting_lang"))",
             {error(PARSER, PARSER_NAME, "Failed to read VCONFKEY_ISE_LPM_DOWNLOADED_WITH_HANDWRITING_LANG")},
             "",
             {R"("db/ise/hand_write", 1)", R"("db/ise/hand_write", 0)"}},
            {record, "vconf_set_bool(", {}},
            {record,
             R"(vconf_set_bool("db/ise/hand_write")",
             {error(PARSER, PARSER_NAME, "Failed to set VCONFKEY_ISE_HANDWRITING_VAL")},
             "",
             {},
             -1},
            {record,
             R"(vconf_set_bool("db/ise/engine/prediction_val")",
             {error(PARSER, PARSER_NAME, "Failed to set VCONFKEY_ISE_PREDICTION_VAL")},
             "",
             {},
             -1},
            {record, "config write", {}},
            {record, "config flush", {}},
            {record, "config reload", {}},
        });
    return {
        "restore",
        platform,
        {{"__service_app_control_cb", registered("RESTORE", RESTORE_REGISTRATIONS)},
         {"__restore_prepare_cb", {"orvanta_cloud_restore_record_send_preparation_completed_response(1)"}},
         {"__restore_get_restore_path_cb",
          {"orvanta_cloud_restore_record_send_restoration_path(" + RESTORE_DAT + ", 1)"}},
         {record,
          {
              info(SERVICE, record, "==== _restore_record_cb ===="),
              "orvanta_cloud_file_create_record_list(<source>)",
              "orvanta_cloud_list_get_record_count(<list>)",
              info(SERVICE, record, "==== count = [1] ===="),
              "orvanta_cloud_list_move_to_first(<list>)",
              "orvanta_cloud_list_get_current_record(<list>)",
              "orvanta_cloud_record_get_value(<record0>)",
              info(SERVICE, record, "value: [" + snapshot + "]"),
              R"(ConfigModule("socket"))",
              "create_config()",
              "isf_control_get_active_ime()",
              R"(isf_control_set_active_ime("kbd2"))",
              R"(vconf_get_str("db/ise/engine/lpm/downloaded_lang"))",
              R"(vconf_get_str("db/ise/engine/lpm/downloaded_with_handwriting_lang"))",
              "gettext(" + SELECTED + ")",
              "vconf_keylist_new()",
              selection,
              "vconf_set()",
              error(UTILITY, "update_vconfkeys",
                    "vconf keys for key [db/ise/engine/lpm/selected_lang] updated successfully "
                    "[en_US#ko_KR#]"),
              "vconf_keylist_free()",
              R"(vconf_set_bool("db/ise/hand_write", 1))",
              R"(vconf_set_bool("db/ise/engine/prediction_val", 1))",
              R"(config write("int", "keyloom/auto_spacing_val", 1))",
              R"(config write("int", "keyloom/auto_capitalization_val", 1))",
              R"(config write("bool", "keyloom/auto_punctuate_val", 1))",
              R"(config write("int", "keyloom/key_sounds_val", 1))",
              R"(config write("int", "keyloom/key_vibration_val", 1))",
              "config flush()",
              "config reload()",
              "config released",
              R"(orvanta_cloud_record_set_key(<record0>, "0"))",
              R"(orvanta_cloud_record_set_date(<record0>, "1700000000999"))",
              "orvanta_cloud_restore_record_send_record_list(<list>, 1)",
              "orvanta_cloud_list_destroy(<list>)",
          }},
         completed("__restore_completed_cb"),
         TERMINATE},
        rows};
}

class Exchange : public testing::TestWithParam<Scenario>
{
};

TEST_P(Exchange, GoesWell)
{
    ScriptedPlatform platform = GetParam().platform;
    EXPECT_EQ(join(platform.run()), join(flatten(GetParam().sections)));
}

TEST_P(Exchange, EachCallFailsInTurn)
{
    const Scenario &scenario = GetParam();
    const Trace all = flatten(scenario.sections);
    for (const int code : {-7, -1}) {
        int number = 0;
        for (size_t position = 0; position < all.size(); position++) {
            if (!is_call(all[position]))
                continue;
            ScriptedPlatform platform = scenario.platform;
            platform.failing_call = ++number;
            platform.failure_code = code;
            platform.run();
            ASSERT_EQ(platform.failed_call, all[position].substr(0, all[position].find('(')));
            const Trace expected = trace_with_failure(scenario.sections, position, scenario.deviations, code);
            EXPECT_EQ(join(platform.trace), join(expected))
                << "failed: " << all[position] << " with " << code;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, Exchange, testing::Values(backup(), backup_info(), restore()),
                         [](const auto &scenario) {
                             std::string name = scenario.param.name;
                             std::erase(name, ' ');
                             return name;
                         });

} // namespace
