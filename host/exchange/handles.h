#pragma once

#include "orvanta_cloud.h"
#include "record_file.h"

/// Makes a list with copies of `records`. The caller destroys it with orvanta_cloud_list_destroy().
orvanta_cloud_list_handle make_list(const CloudRecords &records);

/// Returns copies of a list's records; nothing when `list` is not a valid handle.
std::optional<CloudRecords> copy_records(orvanta_cloud_list_handle list);

/// Destroys all lists and records.
void release_lists_and_records();
