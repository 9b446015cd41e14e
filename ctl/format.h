#pragma once

#include <string>
#include <vector>

#include "cloud_store.h"

/// The local time of a record's date, or the text as it stands when it is no date.
std::string format_date(const std::string &date);

/// The line that describes a backup: its number, time and size.
std::string describe_backup(const CloudStore &store, BackupNumber number);

/// Prints rows with their columns aligned.
void print_table(const std::vector<std::vector<std::string>> &rows);
