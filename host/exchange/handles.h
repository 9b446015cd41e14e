#pragma once

#include "orvanta_cloud.h"
#include "record_file.h"

/// Makes a list of copies of `records`. As any list, it is destroyed with orvanta_cloud_list_destroy().
orvanta_cloud_list_handle make_list(const CloudRecords &records);

/// @return copies of a list's records, or nothing when `list` is no list that is alive
std::optional<CloudRecords> copy_records(orvanta_cloud_list_handle list);

/// Releases all lists and records that are still alive.
void release_lists_and_records();
