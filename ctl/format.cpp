#include "format.h"

#include <algorithm>
#include <cstdio>

#include <glib.h>

#include "record_file.h"
#include "text.h"

std::string format_date(const std::string &date)
{
    gint64 milliseconds = 0;
    if (g_ascii_string_to_signed(date.c_str(), 10, 0, G_MAXINT64, &milliseconds, nullptr) == FALSE)
        return escaped(date);
    g_autoptr(GDateTime) local = g_date_time_new_from_unix_local(milliseconds / 1000);
    g_autofree gchar *text = local == nullptr ? nullptr : g_date_time_format(local, "%F %T");
    return text == nullptr ? escaped(date) : text;
}

std::string describe_backup(const CloudStore &store, BackupNumber number)
{
    const std::string name = "backup " + std::to_string(number) + "  ";
    try {
        const std::string content = store.read(number);
        const CloudRecords records = decode_record_file(content);
        const std::string date = records.empty() ? "" : records.front().date.value_or("");
        return name + format_date(date) + "  " + std::to_string(content.size()) + " bytes";
    } catch (const HostError &error) {
        return name + "unusable: " + escaped(error.what());
    }
}

static size_t width_of(const std::string &text)
{
    return static_cast<size_t>(g_utf8_strlen(text.c_str(), -1));
}

void print_table(const std::vector<std::vector<std::string>> &rows)
{
    std::vector<size_t> widths;
    for (const auto &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], width_of(escaped(row[i])));
    }
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            const std::string cell = escaped(row[i]);
            line += cell + std::string(widths[i] + 2 - width_of(cell), ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.c_str());
    }
}
