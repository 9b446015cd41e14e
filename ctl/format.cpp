#include "format.h"

#include <glib.h>

#include "cloud_store.h"
#include "record_file.h"
#include "state.h"

std::string format_date(const std::string &date)
{
    gint64 milliseconds = 0;
    if (g_ascii_string_to_signed(date.c_str(), 10, 0, G_MAXINT64, &milliseconds, nullptr) == FALSE)
        return date;
    g_autoptr(GDateTime) local = g_date_time_new_from_unix_local(milliseconds / 1000);
    g_autofree gchar *text = local == nullptr ? nullptr : g_date_time_format(local, "%F %T");
    return text == nullptr ? date : text;
}

std::string format_backup(guint64 number)
{
    const std::string name = "backup " + std::to_string(number) + "  ";
    try {
        const std::string content = CloudStore().read(number);
        const CloudRecords records = decode_record_file(content);
        const std::string date = records.empty() ? "" : records.front().date.value_or("");
        return name + format_date(date) + "  " + std::to_string(content.size()) + " bytes";
    } catch (const HostError &error) {
        return name + "unusable: " + error.what();
    }
}
