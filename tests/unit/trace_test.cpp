// Runs the exchanges in the files of traces/, and compares their traces.
//
// A paragraph of such a file is one exchange. It begins with the platform's values: "NAME: VALUE" (see
// scripted_platform.h), or "record: VALUE" for another record to restore. The lines of the trace follow:
//   I TEXT, E TEXT  a log line of the latest "@ CALLBACK"; I(NAME) and E(NAME): of another function
// A paragraph without a trace sets values for all exchanges below it. In a table, each row ("| ...") is an
// exchange, with the values above the table. " | " in a line stands for a line break.
//
// With "show: REGEX", only matching lines are compared. Otherwise the exchange also runs once for each call
// with that call failing. By default the callback then logs the code, and the trace goes on. Exceptions:
//   ~ CALL             the call's failure changes nothing
// or lines after the call, indented or separated by " | ". They replace the log line, except for:
//   goto PREFIX        the trace goes on with this line
//   then OLD => NEW    replaces a text in the rest of the callback's lines
//   terminate          the service gives up the request

#include "scripted_platform.h"

#include <filesystem>
#include <fstream>
#include <regex>
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
    bool has_default_consequences = true;
    std::string resume = {};
    std::string old_text = {}, new_text = {};
};

struct Exchange {
    std::string place; ///< FILE_LINE
    ScriptedPlatform platform;
    std::vector<Line> lines;

    friend void PrintTo(const Exchange &exchange, std::ostream *stream) { *stream << exchange.place; }
};

bool give(Exchange &exchange, const std::string &text)
{
    static const std::regex shape("([a-z ]+|[^ :]+/[^ :]+):(?: ([^]*))?");
    std::smatch part;
    if (!std::regex_match(text, part, shape))
        return false;
    if (part[1] == "record")
        exchange.platform.records.push_back(part[2]);
    else if (part[1].str().find('/') == std::string::npos)
        exchange.platform.given.at(part[1]) = part[2];
    else
        exchange.platform.given[part[1]] = part[2];
    return true;
}

std::string expand(const std::string &text, const std::string &callback)
{
    return text.starts_with("I ") || text.starts_with("E ")
               ? text.substr(0, 1) + "(" + callback + ")" + text.substr(1)
               : text;
}

void add_line(std::vector<Line> &lines, const std::string &text, const std::string &callback)
{
    static const std::regex cannot_fail(
        "^([IE][ (]|gettext|config released|vconf_keylist_new|service_app_exit)");
    const bool unnoticed = text.starts_with("~ ");
    const std::string line = unnoticed ? text.substr(2) : text;
    lines.push_back({expand(line, callback), callback, !std::regex_search(line, cannot_fail)});
    if (!unnoticed)
        lines.back().consequences = {"E(" + callback + ") " + line.substr(0, line.find('(')) + "() failed, " +
                                     (line.starts_with("app_control_") ? "ret" : "error_code") + " = [-7]\n"};
}

void add_consequence(Line &line, const std::string &text)
{
    if (text.starts_with("goto ")) {
        line.resume = text.substr(5);
    } else if (text.starts_with("then ")) {
        const size_t arrow = text.find(" => ");
        line.old_text = text.substr(5, arrow - 5);
        line.new_text = text.substr(arrow + 4);
    } else if (text == "terminate") {
        line.consequences.push_back("app_control_destroy(<reply>)");
        line.consequences.push_back(
            expand("E It is terminated with Orvanta Cloud failed, error_code = [-7]\n", line.callback));
        line.consequences.push_back("service_app_exit()");
        line.resume = "orvanta_cloud_deinitialize";
    } else {
        if (std::exchange(line.has_default_consequences, false))
            line.consequences.clear();
        line.consequences.push_back(expand(text, line.callback));
    }
}

void read_line(Exchange &exchange, std::string text, const std::string &callback)
{
    bool of_failure = text.starts_with("    ");
    text.erase(0, of_failure ? 4 : 0);
    static const std::regex separator(" \\| ");
    for (std::sregex_token_iterator part(text.begin(), text.end(), separator, -1), end; part != end; ++part) {
        if (of_failure) {
            add_consequence(exchange.lines.back(), *part);
        } else if (!give(exchange, *part)) {
            add_line(exchange.lines, *part, callback);
            of_failure = exchange.platform.given["show"].empty();
        }
    }
}

std::vector<Exchange> read_exchanges()
{
    std::vector<Exchange> exchanges;
    for (const auto &entry : std::filesystem::directory_iterator(TRACES)) {
        std::ifstream file(entry.path());
        Exchange base, exchange;
        std::string callback;
        bool is_table = false;
        std::string line;
        for (int number = 1; file; number++) {
            std::getline(file, line);
            g_autofree gchar *bytes = g_strcompress(line.c_str());
            const std::string text = bytes;
            const std::string place = entry.path().stem().string() + "_" + std::to_string(number);
            if (text.empty()) {
                if (!is_table)
                    (exchange.lines.empty() ? base : exchanges.emplace_back()) = exchange;
                exchange = base;
                is_table = false;
            } else if (text.starts_with("@ ")) {
                callback = text.substr(2);
            } else if (text.starts_with("| ")) {
                is_table = true;
                exchanges.push_back(exchange);
                exchanges.back().place = place;
                read_line(exchanges.back(), text.substr(2), callback);
            } else if (!text.starts_with("# ")) {
                if (exchange.lines.empty())
                    exchange.place = place;
                read_line(exchange, text, callback);
            }
        }
    }
    return exchanges;
}

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    if (const size_t at = text.find(from); !from.empty() && at != std::string::npos)
        text.replace(at, from.size(), to);
    return text;
}

Trace expected_when_failing(const std::vector<Line> &all, size_t failed)
{
    const Line &call = all[failed];
    Trace trace;
    for (size_t i = 0; i <= failed; i++)
        trace.push_back(all[i].text);
    trace.insert(trace.end(), call.consequences.begin(), call.consequences.end());
    size_t next = failed + 1;
    while (next < all.size() && !all[next].text.starts_with(call.resume))
        next++;
    for (; next < all.size(); next++)
        trace.push_back(all[next].callback == call.callback
                            ? replaced(all[next].text, call.old_text, call.new_text)
                            : all[next].text);
    return trace;
}

/// Joins the lines, so that a failing test shows a diff.
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

using Traces = testing::TestWithParam<Exchange>;

TEST_P(Traces, AreAsExpected)
{
    const auto &[place, scripted, lines] = GetParam();
    const std::string &show = scripted.given.at("show");
    Trace expected;
    size_t logged = 0;
    for (const Line &line : lines) {
        expected.push_back(line.text);
        logged += line.text.starts_with("I(") || line.text.starts_with("E(") ? 1 : 0;
    }
    for (const char *success : {"5", "0"}) {
        ScriptedPlatform succeeding = scripted;
        succeeding.given["success"] = success;
        EXPECT_EQ(join(succeeding.run(), show), join(expected)) << "success is " << success;
        EXPECT_EQ(succeeding.failed_call, scripted.given.at("fail"));
        if (show.empty()) {
            EXPECT_EQ(succeeding.log_lines.size(), logged)
                << "each message has a line of the source of its own";
        }
    }

    int call = 0;
    for (size_t i = 0; show.empty() && i < lines.size(); i++) {
        if (!lines[i].can_fail)
            continue;
        ScriptedPlatform failing = scripted;
        failing.failing_call = ++call;
        EXPECT_EQ(join(failing.run()), join(expected_when_failing(lines, i))) << "failed: " << expected[i];
        EXPECT_EQ(failing.failed_call, expected[i].substr(0, expected[i].find('(')));
    }
}

INSTANTIATE_TEST_SUITE_P(All, Traces, testing::ValuesIn(read_exchanges()),
                         [](const auto &exchange) { return exchange.param.place; });

} // namespace
