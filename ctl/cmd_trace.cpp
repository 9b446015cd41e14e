// The trace commands: they show the service's calls, or compare them with those of another device.

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <exception>
#include <set>
#include <sstream>

#include <glib.h>

#include "commands.h"
#include "import.h"
#include "text.h"

static constexpr size_t MAX_SIZE = size_t{4} << 20; ///< of a trace
static constexpr size_t MAX_LINES = 4000; ///< of a trace: the comparison needs the square of it in memory
static constexpr size_t CONTEXT = 2;

/// Patterns of text that differs between exchanges, and their replacements.
static constexpr const char *NOT_COMPARED[][2] = {
    {R"(  on thread \d+(?=\r?$)|\r$)", ""},
    // Other lines: standard error may contain more than the trace.
    {R"(^(?! *(log -?\d+ .*|((callback )?[\w:]+\(.*\).*|\}.*)( \{|  made to fail|  \d+ µs))$).*\n?)", ""},
    {R"(  (made to fail|\d+ µs)$)", ""},
    {R"(^(service_app_main)\(\[.*\], )", R"(\1([...], )"},
    {R"re("([^"\\\n]++|\\.)*+"(*SKIP)(*FAIL)|#\d+)re", ""}, // numbers of handles, outside of quotes
    {R"re((set_date\(record, )"[^"]*")re", R"(\1"DATE")"},
    {R"(\b([12]\d{12}|\d{4}-\d\d-\d\d[T ]\d\d:\d\d(:\d\d(\.\d+)?)?( UTC|Z)?)\b)", "DATE"},
    {R"((^ *log [^>\n]*?\()\d+(\) >))", R"(\1LINE\2)"},
};

/// Returns a line without its indentation.
static std::string call_in(const std::string &line)
{
    return line.substr(line.find_first_not_of(' '));
}

struct Trace {
    std::vector<std::string> lines;
    /// The command whose callbacks are registered; "" if none are.
    std::string exchange;
};

/// @throws UsageError if the text is not the trace of one exchange
static Trace read_trace(std::string text, const std::string &name)
{
    for (const auto &[pattern, replacement] : NOT_COMPARED) {
        g_autoptr(GRegex) regex = g_regex_new(
            pattern, static_cast<GRegexCompileFlags>(G_REGEX_RAW | G_REGEX_MULTILINE), {}, nullptr);
        g_autofree gchar *replaced = g_regex_replace(regex, text.data(), static_cast<gssize>(text.size()), 0,
                                                     replacement, {}, nullptr);
        text = replaced == nullptr ? "" : replaced;
    }
    Trace trace;
    int starts = 0;
    int exchanges = 0;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line); trace.lines.push_back(line)) {
        const std::string call = call_in(line);
        starts += call.starts_with("service_app_main(") ? 1 : 0;
        exchanges += call.ends_with("_record_set_completed_cb(callback, null) = 0") ? 1 : 0;
        if (call.starts_with("orvanta_cloud_restore_record_set_"))
            trace.exchange = "restore";
        else if (call.starts_with("orvanta_cloud_backup_record_set_backup_cb("))
            trace.exchange = "backup";
        else if (call.starts_with("orvanta_cloud_backup_record_set_") && trace.exchange.empty())
            trace.exchange = "info";
    }
    if (starts == 0)
        throw UsageError(name + " is not a trace in text form");
    if (starts > 1 || exchanges > 1)
        throw UsageError(name + " holds the traces of several exchanges");
    if (trace.lines.size() > MAX_LINES)
        throw UsageError(name + " has too many lines to compare");
    return trace;
}

/// A line of one trace (- or +) or of both (a space).
struct ComparedLine {
    char mark;
    std::string text;
};

static std::vector<ComparedLine> compare(const std::vector<std::string> &from,
                                         const std::vector<std::string> &to)
{
    // The length of the longest common subsequence from here on.
    std::vector<std::vector<std::uint16_t>> common(from.size() + 1,
                                                   std::vector<std::uint16_t>(to.size() + 1));
    for (size_t i = from.size(); i-- > 0;)
        for (size_t j = to.size(); j-- > 0;)
            common[i][j] = from[i] == to[j] ? static_cast<std::uint16_t>(common[i + 1][j + 1] + 1)
                                            : std::max(common[i + 1][j], common[i][j + 1]);
    std::vector<ComparedLine> lines;
    for (size_t i = 0, j = 0; i < from.size() || j < to.size();) {
        if (i < from.size() && j < to.size() && from[i] == to[j]) {
            lines.push_back({' ', from[i++]});
            j++;
        } else if (j == to.size() || (i < from.size() && common[i + 1][j] >= common[i][j + 1])) {
            lines.push_back({'-', from[i++]});
        } else {
            lines.push_back({'+', to[j++]});
        }
    }
    return lines;
}

/// Returns the lines of the calls and callbacks that enclose a line, innermost first.
static std::vector<size_t> lines_around(const std::vector<ComparedLine> &lines, size_t line)
{
    std::vector<size_t> around;
    size_t indent = lines[line].text.find_first_not_of(' ');
    for (size_t i = line; i-- > 0;) {
        const auto &[mark, text] = lines[i];
        const size_t outer = text.find_first_not_of(' ');
        // Lines of other threads may come between.
        if (outer < indent && text.ends_with(" {") && (mark == ' ' || mark == lines[line].mark)) {
            around.push_back(i);
            indent = outer;
        }
    }
    return around;
}

static void show_differences(Cli &cli, const std::string &file, const Trace &from, const Trace &to)
{
    static constexpr std::string_view CALLBACK = "callback ";
    const std::vector<ComparedLine> lines = compare(from.lines, to.lines);
    Table differences{
        {{"callback", FOR_SCRIPTS}, {"from", FOR_SCRIPTS}, {"to", FOR_SCRIPTS}}, {}, Remarks::none, false};
    std::set<size_t> shown;
    for (size_t i = 0; i < lines.size(); i++) {
        const auto &[mark, text] = lines[i];
        if (mark == ' ')
            continue;
        Json callback;
        for (const size_t around : lines_around(lines, i)) {
            shown.insert(around);
            const std::string call = call_in(lines[around].text);
            if (callback == Json() && call.starts_with(CALLBACK))
                callback = call.substr(CALLBACK.size(), call.find('(') - CALLBACK.size());
        }
        for (size_t near = i - std::min(i, CONTEXT); near < std::min(i + CONTEXT + 1, lines.size()); near++)
            shown.insert(near);
        const Json call = call_in(text);
        differences.rows.push_back(
            {{callback, ""}, {mark == '-' ? call : Json(), ""}, {mark == '+' ? call : Json(), ""}});
    }
    // In a log message, a quotation mark precedes the bracket; the end of a call has neither.
    const auto calls = std::count_if(to.lines.begin(), to.lines.end(),
                                     [](const std::string &line) { return line.find('(') < line.find('"'); });
    cli.status = shown.empty() ? EXIT_DONE : EXIT_FAILED;
    cli.document.set("calls", Json(std::int64_t{calls}));
    cli.document.set("differences", differences);
    if (cli.quiet || cli.has("--json"))
        return;
    if (shown.empty())
        printf("the same %td calls\n", calls);
    else
        printf("--- %s\n+++ here\n", escaped(file).c_str());
    size_t next = 0;
    for (const size_t line : shown) {
        if (line != next)
            printf("...\n");
        printf("%c%s\n", lines[line].mark, escaped(lines[line].text).c_str());
        next = line + 1;
    }
}

/// Traces the command of the same name, or the one whose exchange is in the file to compare with.
void run_trace(Cli &cli)
{
    std::string exchange = cli.command().commands.empty() ? cli.command().name : "";
    cli.traces = true;
    // If the reader of the trace goes away, the exchange still completes, and the lost output is reported.
    std::signal(SIGPIPE, SIG_IGN);
    if (!cli.has("--compare")) {
        if (exchange.empty())
            throw UsageError("trace requires an exchange: backup, restore or info");
        find_command(PROGRAM, exchange).run(cli);
        return;
    }
    cli.failure_status = EXIT_NO_PLATFORM; // 1 means that they differ
    const std::string file = cli.value("--compare");
    const Trace there = read_trace(read_input(file, MAX_SIZE, "compared"), file);
    if (exchange.empty())
        exchange = there.exchange;
    if (exchange.empty())
        throw UsageError(file + " does not show its exchange: name backup, restore or info");
    if (!there.exchange.empty() && there.exchange != exchange)
        throw UsageError(file + " is a trace of another exchange: " + there.exchange);
    std::exception_ptr failure;
    try {
        find_command(PROGRAM, exchange).run(cli);
    } catch (const std::exception &) {
        failure = std::current_exception();
    }
    if (!failure || !cli.trace.empty())
        show_differences(cli, file, there, read_trace(cli.trace, "the service's trace"));
    if (failure)
        std::rethrow_exception(failure);
}
