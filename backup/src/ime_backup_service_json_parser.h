#pragma once

/// Applies a snapshot to the device.
///
/// @param value  the snapshot's text
/// @return true if the snapshot was applied, even if single settings failed; false if the text is not JSON or
///         the input-method configuration can't be opened: the device is then unchanged
bool _ime_restore_json_value(const char *value);
