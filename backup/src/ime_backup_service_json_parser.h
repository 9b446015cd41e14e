#pragma once

/// Applies a snapshot to the device.
///
/// @param value  the snapshot's text
/// @return true when the snapshot was applied, even if single settings failed; false when the text is not
/// JSON
///         or the input-method configuration can't be opened, and nothing on the device has changed
bool _ime_restore_json_value(const char *value);
