// Exchanges and the traces that they leave, as traces/ tells them. A paragraph there is one exchange: what
// the platform is given ("NAME: VALUE", see scripted_platform.h; "record: VALUE" is one more to restore) and
// the lines of the trace, of which
//   I TEXT, E TEXT  are the log's, in the name of the latest "@ CALLBACK"; I(NAME) and E(NAME), of another
// A paragraph without a trace gives to all below it.
// When a call fails, its callback logs it with its code, and the trace goes on, unless the call is
//   ~ CALL             whose failure changes nothing
// or indented lines below it tell otherwise: lines that come in place of the log's, and
//   goto PREFIX        the line with which the trace then goes on, rather than the next
//   then OLD => NEW    what the rest of the callback's lines then have
//   only CODE          the failure code for which the lines come in
//   terminate          the service gives up the request

#include "scripted_platform.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <utility>

#include <glib.h>
#include <gtest/gtest.h>

namespace
{

struct Line {
    std::string text;
    std::string callback;
    bool can_fail = false;

    // When it fails:
    Trace consequences = {};
    bool as_usual = true;
    std::string resume = {};
    std::string old_text = {}, new_text = {};
    std::string only_code = {};
};

struct Exchange {
    std::string place; ///< FILE_LINE
    ScriptedPlatform platform;
    std::vector<Line> lines;
};

void PrintTo(const Exchange &exchange, std::ostream *stream)
{
    *stream << exchange.place;
}

bool give(Exchange &exchange, const std::string &text)
{
    static const std::regex shape("([^:]*):(?: ([^]*))?");
    std::smatch part;
    if (!std::regex_match(text, part, shape))
        return false;
    const std::string name = part[1];
    const std::string value = part[2];
    if (name == "record")
        exchange.platform.records.push_back(value);
    else if (exchange.platform.given.contains(name) ||
             (name.find('/') != std::string::npos && name.find(' ') == std::string::npos))
        exchange.platform.given[name] = value;
    else
        return false;
    return true;
}

std::string expand(const std::string &text, const std::string &callback)
{
    return text.starts_with("I ") || text.starts_with("E ")
               ? text.substr(0, 1) + "(" + callback + ")" + text.substr(1)
               : text;
}

bool can_fail(const std::string &text)
{
    static const std::regex cannot(
        "^([IE][ (]|gettext|config released|vconf_keylist_(new|free)|service_app_exit)");
    return !std::regex_search(text, cannot);
}

void add_line(std::vector<Line> &lines, const std::string &text, const std::string &callback)
{
    const bool unnoticed = text.starts_with("~ ");
    const std::string line = unnoticed ? text.substr(2) : text;
    lines.push_back({expand(line, callback), callback, can_fail(line)});
    if (!unnoticed)
        lines.back().consequences = {"E(" + callback + ") " + line.substr(0, line.find('(')) + "() failed, " +
                                     (line.starts_with("app_control_") ? "ret" : "error_code") +
                                     " = [CODE]\n"};
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
        line.only_code = text.substr(5);
    } else if (text == "terminate") {
        for (const char *step :
             {"app_control_destroy(<reply>)",
              "E It is terminated with Orvanta Cloud failed, error_code = [CODE]\n", "service_app_exit()"})
            line.consequences.push_back(expand(step, line.callback));
        line.resume = "orvanta_cloud_deinitialize";
    } else {
        if (std::exchange(line.as_usual, false))
            line.consequences.clear();
        line.consequences.push_back(expand(text, line.callback));
    }
}

std::string unescaped(const std::string &text)
{
    g_autofree gchar *bytes = g_strcompress(text.c_str());
    return bytes;
}

void read_file(const std::filesystem::path &path, std::vector<Exchange> &exchanges)
{
    std::ifstream file(path);
    Exchange base;
    Exchange exchange;
    std::string callback;
    int number = 0;
    for (bool more = true; more;) {
        std::string text;
        more = static_cast<bool>(std::getline(file, text));
        number++;
        text = unescaped(text);
        if (text.empty()) {
            (exchange.lines.empty() ? base : exchanges.emplace_back()) = exchange;
            exchange = base;
            exchange.place = path.stem().string() + "_" + std::to_string(number + 1);
        } else if (text.starts_with("@ ")) {
            callback = text.substr(2);
        } else if (text.starts_with("    ")) {
            add_consequence(exchange.lines.back(), text.substr(4));
        } else if (!text.starts_with("# ") && !give(exchange, text)) {
            add_line(exchange.lines, text, callback);
        }
    }
}

std::vector<Exchange> read_exchanges()
{
    std::vector<Exchange> exchanges;
    for (const auto &entry : std::filesystem::directory_iterator(TRACES))
        read_file(entry.path(), exchanges);
    return exchanges;
}

bool is_logged(const std::string &line)
{
    return line.starts_with("I(") || line.starts_with("E(");
}

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    if (const size_t at = text.find(from); !from.empty() && at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

Trace expected_when_failing(const std::vector<Line> &all, size_t failed, const std::string &code)
{
    const Line &call = all[failed];
    Trace trace;
    for (size_t i = 0; i <= failed; i++)
        trace.push_back(all[i].text);
    if (call.only_code.empty() || call.only_code == code)
        for (const std::string &line : call.consequences)
            trace.push_back(replaced(line, "CODE", code));
    size_t next = failed + 1;
    while (next < all.size() && !all[next].text.starts_with(call.resume))
        next++;
    for (; next < all.size(); next++)
        trace.push_back(all[next].callback == call.callback
                            ? replaced(all[next].text, call.old_text, call.new_text)
                            : all[next].text);
    return trace;
}

/// One text, of which a failing test shows the lines that differ.
std::string join(const Trace &trace, const std::string &show = "")
{
    const std::regex shown(show);
    std::string text;
    std::smatch match;
    for (const std::string &line : trace)
        if (std::regex_search(line, match, shown))
            text += (show.empty() ? line : match.str()) + "\n";
    return text;
}

class Traces : public testing::TestWithParam<Exchange>
{
protected:
    static void expect_failure(size_t line, const std::string &code, int call)
    {
        const std::string &text = GetParam().lines[line].text;
        SCOPED_TRACE(testing::Message() << "failed: " << text << " with " << code);
        ScriptedPlatform failing = GetParam().platform;
        failing.failing_call = call;
        failing.given["code"] = code;
        failing.run();
        EXPECT_EQ(failing.failed_call, text.substr(0, text.find('(')));
        EXPECT_EQ(join(failing.trace), join(expected_when_failing(GetParam().lines, line, code)));
    }
};

TEST_P(Traces, AreAsExpected)
{
    const Exchange &exchange = GetParam();
    const std::string &show = exchange.platform.given.at("show");
    Trace expected;
    for (const Line &line : exchange.lines)
        expected.push_back(line.text);
    for (const char *success : {"5", "0"}) {
        ScriptedPlatform told = exchange.platform;
        told.given["success"] = success;
        EXPECT_EQ(join(told.run(), show), join(expected)) << "success is " << success;
        if (show.empty()) {
            EXPECT_EQ(told.log_lines.size(), std::count_if(expected.begin(), expected.end(), is_logged))
                << "each message has a line of the source of its own";
        }
    }

    std::istringstream codes(exchange.platform.given.at("failures"));
    for (std::string code; codes >> code;)
        for (size_t line = 0, call = 0; line < exchange.lines.size(); line++)
            if (exchange.lines[line].can_fail)
                expect_failure(line, code, static_cast<int>(++call));
}

INSTANTIATE_TEST_SUITE_P(All, Traces, testing::ValuesIn(read_exchanges()),
                         [](const auto &exchange) { return exchange.param.place; });

} // namespace
