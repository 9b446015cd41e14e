#include "document.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "text.h"

using OrderedJson = nlohmann::ordered_json;

Document::Document() : json(std::make_unique<OrderedJson>()) {}

Document::~Document() = default;

static OrderedJson json_of(const Table &table);

static OrderedJson json_of(const Json &value)
{
    return std::visit(
        [](const auto &typed) -> OrderedJson {
            if constexpr (std::is_same_v<decltype(typed), const std::shared_ptr<Table> &>)
                return json_of(*typed);
            else
                return typed;
        },
        value);
}

static OrderedJson json_of(const Table &table)
{
    OrderedJson json = OrderedJson::array();
    for (const std::vector<Cell> &row : table.rows) {
        OrderedJson object = OrderedJson::object();
        for (size_t i = 0; i < row.size(); i++)
            if (table.columns[i].member != FOR_PEOPLE)
                object[table.columns[i].member] = json_of(row[i].json);
        json.push_back(std::move(object));
    }
    return json;
}

void Document::set(const char *member, const Json &value)
{
    (*json)[member] = json_of(value);
}

void Document::set(const char *member, const Table &table)
{
    (*json)[member] = json_of(table);
    std::erase_if(tables, [&](const auto &known) { return known.first == member; });
    tables.emplace_back(member, table);
}

void Document::set(const Table &table)
{
    *json = json_of(table);
    show(table);
}

bool Document::has_result() const
{
    return json->contains("succeeded");
}

void Document::set_result(bool succeeded, const std::string &reason)
{
    set("succeeded", succeeded);
    set("reason", reason);
}

void report_success(Document &document, const std::string &doubt, const std::string &sentence)
{
    document.set_result(true, doubt);
    for (const std::string &text : {sentence, doubt})
        if (!text.empty())
            document.say(text);
}

void Document::print_json() const
{
    if (json->is_null() && !exact_json)
        return;
    const std::string text =
        exact_json ? *exact_json : json->dump(2, ' ', false, OrderedJson::error_handler_t::replace);
    // A pipe gets the data as they are. On a terminal, control characters are escaped.
    if (isatty(STDOUT_FILENO) == 0) {
        printf("%s\n", text.c_str());
        return;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        printf("%s\n", escaped(line).c_str());
}

// Tables and sentences for people.

static constexpr char GAP[] = "  ";
static constexpr size_t GAP_WIDTH = sizeof GAP - 1;
static constexpr size_t INDENT = 4; ///< of a remark below its row
static constexpr size_t USUAL_WIDTH = 80;
static constexpr size_t LEAST_COLUMN_WIDTH = 6;
static constexpr char BOLD[] = "1";
static constexpr char YELLOW[] = "33";

using Line = std::vector<std::string>;

static size_t width_of(const std::string &text)
{
    size_t width = 0;
    for (const char *c = text.c_str(); *c != '\0'; c = g_utf8_next_char(c))
        width += g_unichar_iszerowidth(g_utf8_get_char(c)) != FALSE ? 0
                 : g_unichar_iswide(g_utf8_get_char(c)) != FALSE    ? 2
                                                                    : 1;
    return width;
}

/// Cuts a text that is too wide, and marks the cut with an ellipsis.
static std::string fit(const std::string &text, size_t width)
{
    if (width_of(text) <= width)
        return text;
    std::string cut = text;
    while (width_of(cut) + 1 > width && !cut.empty())
        cut.erase(static_cast<size_t>(g_utf8_prev_char(cut.c_str() + cut.size()) - cut.c_str()));
    return cut + "\u2026";
}

/// Returns the width of the terminal; other outputs are not limited.
static size_t screen_width(FILE *stream)
{
    if (isatty(fileno(stream)) == 0)
        return SIZE_MAX;
    winsize size = {};
    const bool is_known = ioctl(fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col >= 20;
    return is_known ? size.ws_col : USUAL_WIDTH;
}

/// Returns the headings and the rows. The last cell of each line is its remark.
static std::vector<Line> lines_of(const Table &table)
{
    std::vector<Line> lines(table.rows.size() + 1);
    for (size_t i = 0; i < table.columns.size(); i++) {
        if (!table.columns[i].heading)
            continue;
        lines[0].push_back(*table.columns[i].heading);
        for (size_t row = 0; row < table.rows.size(); row++)
            lines[row + 1].push_back(escaped(table.rows[row][i].text));
    }
    if (table.remarks == Remarks::none)
        for (Line &line : lines)
            line.emplace_back();
    return lines;
}

/// Returns the widths of all columns except the remarks.
static std::vector<size_t> column_widths(const std::vector<Line> &lines, size_t screen)
{
    std::vector<size_t> widths(lines[0].size() - 1);
    for (const Line &line : lines)
        for (size_t i = 0; i < widths.size(); i++)
            widths[i] = std::max(widths[i], width_of(line[i]));
    // The widest column shrinks first. The first column, with the names, never shrinks.
    size_t sum = std::accumulate(widths.begin(), widths.end(), (widths.size() - 1) * GAP_WIDTH);
    for (; widths.size() > 1 && sum > screen; sum--) {
        const auto widest = std::max_element(widths.begin() + 1, widths.end());
        if (*widest <= LEAST_COLUMN_WIDTH)
            break;
        --*widest;
    }
    return widths;
}

static std::string paint(const char *colour, const std::string &text)
{
    return *colour == '\0' || text.empty() ? text : std::string("\033[") + colour + "m" + text + "\033[0m";
}

/// Formats a row with its remark beside it, or below it if the row is too long.
static std::string lay_out(const Line &line, const std::vector<size_t> &widths, size_t screen,
                           const char *colour, const char *remark_colour)
{
    const std::string &remark = line.back();
    size_t count = widths.size();
    while (count > 0 && line[count - 1].empty())
        count--;
    std::string text;
    for (size_t i = 0; i < count; i++) {
        const std::string cell = fit(line[i], widths[i]);
        text += cell;
        if (i + 1 < count || !remark.empty())
            text += std::string(widths[i] - width_of(cell), ' ') + GAP;
    }
    if (remark.empty() || width_of(text) + width_of(remark) <= screen)
        return paint(colour, text) + paint(remark_colour, remark) + "\n";
    text.erase(text.find_last_not_of(' ') + 1);
    text = paint(colour, text) + "\n";
    for (const std::string &part : wrap(remark, screen - INDENT))
        text += std::string(INDENT, ' ') + paint(remark_colour, part) + "\n";
    return text;
}

static void print(const Table &table, FILE *stream)
{
    const size_t screen = screen_width(stream);
    const bool coloured = shows_colour(fileno(stream));
    const char *heading = coloured ? BOLD : "";
    const char *remark = coloured && table.remarks == Remarks::warnings ? YELLOW : "";
    const std::vector<Line> lines = lines_of(table);
    const std::vector<size_t> widths = column_widths(lines, screen);
    for (size_t i = join(lines[0], "").empty() ? 1 : 0; i < lines.size(); i++)
        fprintf(stream, "%s",
                lay_out(lines[i], widths, screen, i == 0 ? heading : "", i == 0 ? heading : remark).c_str());
}

void Document::print_text(FILE *stream) const
{
    for (const auto &[member, table] : tables)
        if (table.is_for_people && !table.rows.empty())
            print(table, stream);
    const size_t screen = screen_width(stream);
    for (const std::string &sentence : sentences) {
        const std::string line = escaped(sentence);
        for (const std::string &part : width_of(line) <= screen ? Line{line} : wrap(line, screen))
            fprintf(stream, "%s\n", part.c_str());
    }
}
