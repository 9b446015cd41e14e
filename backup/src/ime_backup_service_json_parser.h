#pragma once

/// Applies a snapshot to the device.
///
/// @param value  the snapshot's text
/// @return true when it was applied, whatever became of the single settings; false when it is no JSON or the
///         input-method configuration can't be opened: then nothing on the device has changed
bool _ime_restore_json_value(const char *value);
