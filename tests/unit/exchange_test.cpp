// Whole exchanges: their traces when all goes well, and when each call in turn fails. The expected traces are
// in traces/. There, below "@ CALLBACK", stand the lines of that callback, and indented below a call what
// changes when it fails: lines that come in, and
//   goto PREFIX     the line with which the trace then goes on, rather than the next
//   then OLD => NEW what the rest of the callback's lines then have
//   only CODE       the failure code for which the lines come in
//   unnoticed       there are none
//   terminate       the service gives up the request
// A call with nothing below it is logged by its callback with its code, and the trace goes on.

#include "expected.h"

#include <fstream>

#include <gtest/gtest.h>

#include "ime_backup_operations.h"

namespace
{

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    if (const size_t at = text.find(from); !from.empty() && at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

/// A line of a trace file as it stands in a trace.
std::string expand(const std::string &text, const std::string &callback)
{
    const std::string line = replaced(text, "\\n", "\n");
    if (line.starts_with("I "))
        return info(SERVICE, callback, line.substr(2));
    if (line.starts_with("E "))
        return error(SERVICE, callback, line.substr(2));
    for (const auto &[mark, file, function] : {std::tuple("E(writer) ", WRITER, "_ime_backup_get_json_value"),
                                               std::tuple("E(restorer) ", PARSER, "_ime_restore_json_value"),
                                               std::tuple("E(read) ", UTILITY, "read_vconfkeys"),
                                               std::tuple("E(update) ", UTILITY, "update_vconfkeys")})
        if (line.starts_with(mark))
            return error(file, function, line.substr(strlen(mark)));
    return line;
}

struct Line {
    std::string text;
    std::string callback;
    bool can_fail = false;

    // When it fails:
    Trace lines = {};
    std::string resume = {};
    std::string old_text = {}, new_text = {};
    int only_code = 0;
};

bool can_fail(const std::string &text)
{
    for (const char *prefix : {"I ", "E ", "E(", "gettext", "config released", "vconf_keylist_new",
                               "vconf_keylist_free", "service_app_exit"})
        if (text.starts_with(prefix))
            return false;
    return true;
}

void add_consequence(Line &line, const std::string &text)
{
    if (text.starts_with("goto ")) {
        line.resume = text.substr(5);
    } else if (text.starts_with("then ")) {
        const size_t arrow = text.find(" => ");
        line.old_text = text.substr(5, arrow - 5);
        line.new_text = text.substr(arrow + 4);
    } else if (text.starts_with("only ")) {
        line.only_code = std::stoi(text.substr(5));
    } else if (text == "terminate") {
        for (const char *step :
             {"app_control_destroy(<reply>)",
              "E It is terminated with Orvanta Cloud failed, error_code = [CODE]\\n", "service_app_exit()"})
            line.lines.push_back(expand(step, line.callback));
        line.resume = "orvanta_cloud_deinitialize";
    } else if (text != "unnoticed") {
        line.lines.push_back(expand(text, line.callback));
    }
}

std::vector<Line> read_trace(const std::string &name)
{
    std::ifstream file(std::string(TRACES) + "/" + name + ".trace");
    EXPECT_TRUE(file.is_open()) << name;
    std::vector<Line> trace;
    std::string callback;
    bool plain = false;
    for (std::string text; std::getline(file, text);) {
        if (text.starts_with("@ ")) {
            callback = text.substr(2);
        } else if (text.starts_with("    ")) {
            if (std::exchange(plain, false))
                trace.back().lines.clear();
            add_consequence(trace.back(), text.substr(4));
        } else if (!text.empty()) {
            plain = true;
            trace.push_back({expand(text, callback), callback, can_fail(text)});
            const std::string call = text.substr(0, text.find('('));
            add_consequence(trace.back(), "E " + call + "() failed, error_code = [CODE]\\n");
        }
    }
    return trace;
}

Trace expected_when_failing(const std::vector<Line> &all, size_t failed, int code)
{
    const Line &call = all[failed];
    Trace trace;
    for (size_t i = 0; i <= failed; i++)
        trace.push_back(all[i].text);
    if (call.only_code == 0 || call.only_code == code)
        for (const std::string &line : call.lines)
            trace.push_back(replaced(line, "CODE", std::to_string(code)));
    size_t next = failed + 1;
    while (next < all.size() && !all[next].text.starts_with(call.resume))
        next++;
    for (; next < all.size(); next++)
        trace.push_back(all[next].callback == call.callback
                            ? replaced(all[next].text, call.old_text, call.new_text)
                            : all[next].text);
    return trace;
}

struct Scenario {
    const char *name;
    const char *operation;
};

void PrintTo(const Scenario &scenario, std::ostream *stream)
{
    *stream << scenario.name;
}

class Exchange : public testing::TestWithParam<Scenario>
{
protected:
    const std::vector<Line> expected = read_trace(GetParam().name);

    static ScriptedPlatform make_platform()
    {
        ScriptedPlatform platform;
        platform.operation = GetParam().operation;
        platform.bools = {{"db/ise/hand_write", 1}, {"db/ise/engine/prediction_val", 1}};
        platform.restored = {
            R"({"default_keyboard":"kbd2","selected_lang":[{"lang_id":"en_US"},{"lang_id":"ko_KR"}],)"
            R"("handwriting":true,"prediction":true,"auto_space":true,"auto_capitalize":true,)"
            R"("auto_punctuation":true,"key_tap_sound":true,"key_tap_vib":true})"};
        return platform;
    }
};

TEST_P(Exchange, GoesWell)
{
    Trace trace;
    for (const Line &line : expected)
        trace.push_back(line.text);
    ScriptedPlatform platform = make_platform();
    EXPECT_EQ(join(platform.run()), join(trace));
    EXPECT_EQ(platform.log_lines.size(), platform.only({"4 ", "6 "}).size())
        << "each message has a line of its own";
}

TEST_P(Exchange, EachCallFailsInTurn)
{
    for (const int code : {-7, -1}) {
        int number = 0;
        for (size_t i = 0; i < expected.size(); i++) {
            if (!expected[i].can_fail)
                continue;
            ScriptedPlatform platform = make_platform();
            platform.failing_call = ++number;
            platform.failure_code = code;
            platform.run();
            ASSERT_EQ(platform.failed_call, expected[i].text.substr(0, expected[i].text.find('(')));
            EXPECT_EQ(join(platform.trace), join(expected_when_failing(expected, i, code)))
                << "failed: " << expected[i].text << " with " << code;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, Exchange,
                         testing::Values(Scenario{"backup", OPERATION_BACKUP},
                                         Scenario{"get_backup_info", OPERATION_GET_BACKUP_INFO},
                                         Scenario{"restore", OPERATION_RESTORE}),
                         [](const auto &scenario) { return std::string(scenario.param.name); });

} // namespace
