#pragma once

#include <string>

#include <glib.h>

/// The local time of a record's date, or the text as it stands when it is no date.
std::string format_date(const std::string &date);

/// The line that describes a backup: its number, time and size.
std::string format_backup(guint64 number);
