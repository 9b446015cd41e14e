#include "document.h"

#include <algorithm>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "text.h"

void Document::set(const char *member, std::variant<Json, Table> value)
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const Member &known) { return known.name == member; });
    if (found == members.end())
        members.push_back({member, std::move(value)});
    else
        found->value = std::move(value);
}

static constexpr char SUCCEEDED[] = "succeeded";

void Document::set_result(bool succeeded, const std::string &reason)
{
    set(SUCCEEDED, Json(succeeded));
    set("reason", Json(reason));
}

bool Document::has_result() const
{
    return !members.empty() && members.front().name == SUCCEEDED;
}

// For scripts.

using nlohmann::ordered_json;

static ordered_json json_of(const Json &value)
{
    return std::visit([](const auto &content) { return ordered_json(content); }, value);
}

static ordered_json json_of(const Table &table)
{
    ordered_json json = table.is_keyed ? ordered_json::object() : ordered_json::array();
    for (const std::vector<Cell> &row : table.rows) {
        if (table.is_keyed) {
            json[row[0].text] = json_of(row[1].json);
            continue;
        }
        ordered_json object = ordered_json::object();
        for (size_t i = 0; i < row.size(); i++)
            if (table.columns[i].member != FOR_PEOPLE)
                object[table.columns[i].member] = json_of(row[i].json);
        json.push_back(std::move(object));
    }
    return json;
}

static void print_to_script(const std::string &text)
{
    // In a pipe, the text is the data itself; on a terminal it must not be obeyed.
    if (isatty(STDOUT_FILENO) == 0) {
        printf("%s\n", text.c_str());
        return;
    }
    g_auto(GStrv) lines = g_strsplit(text.c_str(), "\n", -1);
    for (gchar **line = lines; *line != nullptr; line++)
        printf("%s\n", escaped(*line).c_str());
}

void Document::print_json() const
{
    if (exact_json) {
        print_to_script(*exact_json);
        return;
    }
    ordered_json json;
    for (const Member &member : members) {
        const ordered_json value =
            std::visit([](const auto &content) { return json_of(content); }, member.value);
        if (member.name.empty())
            json = value;
        else
            json[member.name] = value;
    }
    print_to_script(json.dump(2, ' ', false, ordered_json::error_handler_t::replace));
}

// For people.

namespace
{

constexpr char GAP[] = "  ";
constexpr size_t GAP_WIDTH = sizeof GAP - 1;
constexpr size_t INDENT = 4; ///< of what stands below a row
constexpr size_t USUAL_WIDTH = 80;
constexpr size_t LEAST_COLUMN_WIDTH = 6;
constexpr char BOLD[] = "1";
constexpr char YELLOW[] = "33";

size_t width_of(const std::string &text)
{
    size_t width = 0;
    for (const char *c = text.c_str(); *c != '\0'; c = g_utf8_next_char(c))
        width += g_unichar_iszerowidth(g_utf8_get_char(c)) != FALSE ? 0
                 : g_unichar_iswide(g_utf8_get_char(c)) != FALSE    ? 2
                                                                    : 1;
    return width;
}

/// The text, cut so that it fits, with a mark where it was.
std::string fit(const std::string &text, size_t width)
{
    if (width_of(text) <= width)
        return text;
    std::string cut = text;
    while (width_of(cut) + 1 > width && !cut.empty())
        cut.erase(static_cast<size_t>(g_utf8_prev_char(cut.c_str() + cut.size()) - cut.c_str()));
    return cut + "\u2026";
}

/// Columns of a terminal; nothing when the file is none.
std::optional<size_t> terminal_width(int file)
{
    if (isatty(file) == 0)
        return std::nullopt;
    winsize size = {};
    const bool is_known = ioctl(file, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20;
    return is_known ? size.ws_col : USUAL_WIDTH;
}

/// Lays a table out for people.
class Layout
{
public:
    Layout(const Table &table, FILE *stream)
        : output(stream), remarks(table.remarks), screen(terminal_width(fileno(stream))),
          coloured(shows_colour(fileno(stream)))
    {
        std::vector<std::string> headings;
        for (const Column &column : table.columns)
            if (column.heading)
                headings.push_back(*column.heading);
        has_headings = std::any_of(headings.begin(), headings.end(),
                                   [](const std::string &heading) { return !heading.empty(); });
        if (has_headings)
            lines.push_back(headings);
        for (const std::vector<Cell> &row : table.rows) {
            std::vector<std::string> line;
            for (size_t i = 0; i < row.size(); i++)
                if (table.columns[i].heading)
                    line.push_back(escaped(row[i].text));
            lines.push_back(line);
        }
        if (remarks == Remarks::none)
            for (std::vector<std::string> &line : lines)
                line.emplace_back();
        measure();
    }

    void print() const
    {
        for (size_t i = 0; i < lines.size(); i++)
            print_line(lines[i], has_headings && i == 0 ? BOLD : "");
    }

private:
    void measure()
    {
        for (const auto &line : lines) {
            widths.resize(line.size() - 1);
            for (size_t i = 0; i < widths.size(); i++)
                widths[i] = std::max(widths[i], width_of(line[i]));
        }
        // The widest give way first; the first column, the names, never does.
        while (screen && widths.size() > 1 && width_of_columns() > *screen) {
            const auto widest = std::max_element(widths.begin() + 1, widths.end());
            if (*widest <= LEAST_COLUMN_WIDTH)
                break;
            --*widest;
        }
    }

    size_t width_of_columns() const
    {
        size_t width = 0;
        for (const size_t column : widths)
            width += column + GAP_WIDTH;
        return width - GAP_WIDTH;
    }

    std::string paint(const char *colour, const std::string &text) const
    {
        return coloured && *colour != '\0' && !text.empty()
                   ? std::string("\033[") + colour + "m" + text + "\033[0m"
                   : text;
    }

    void print_line(const std::vector<std::string> &line, const char *colour) const
    {
        const std::string &remark = line.back();
        const char *remark_colour = remarks == Remarks::warnings && *colour == '\0' ? YELLOW : colour;
        size_t count = line.size() - 1; // of the cells in front of the remark
        while (count > 0 && line[count - 1].empty())
            count--;
        std::string text;
        for (size_t i = 0; i < count; i++) {
            const std::string cell = screen && i > 0 ? fit(line[i], widths[i]) : line[i];
            text += cell;
            if (i + 1 < count || !remark.empty())
                text += std::string(widths[i] - std::min(widths[i], width_of(cell)), ' ') + GAP;
        }
        if (!screen || remark.empty() || width_of(text) + width_of(remark) <= *screen) {
            fprintf(output, "%s%s\n", paint(colour, text).c_str(), paint(remark_colour, remark).c_str());
            return;
        }
        text.erase(text.find_last_not_of(' ') + 1);
        fprintf(output, "%s\n", paint(colour, text).c_str());
        for (const std::string &part : wrap(remark, *screen - INDENT))
            fprintf(output, "%*s%s\n", static_cast<int>(INDENT), "", paint(remark_colour, part).c_str());
    }

    FILE *const output;
    const Remarks remarks;
    const std::optional<size_t> screen;
    const bool coloured;
    bool has_headings = false;
    std::vector<std::vector<std::string>> lines;
    std::vector<size_t> widths; ///< of all columns but the remarks
};

} // namespace

void Document::print_text(FILE *stream) const
{
    for (const Member &member : members)
        if (const auto *table = std::get_if<Table>(&member.value);
            table != nullptr && table->is_for_people && !table->rows.empty())
            Layout(*table, stream).print();
    const std::optional<size_t> screen = terminal_width(fileno(stream));
    for (const std::string &sentence : sentences) {
        const std::string line = escaped(sentence);
        if (!screen || width_of(line) <= *screen)
            fprintf(stream, "%s\n", line.c_str());
        else
            for (const std::string &part : wrap(line, *screen))
                fprintf(stream, "%s\n", part.c_str());
    }
}
