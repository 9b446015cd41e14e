#pragma once

#include <glib.h>

#include "utility.h"

/// Gathers the keyboard's settings into a snapshot, a JSON document.
///
/// @param[out] value   the snapshot, which the caller releases with g_free(); untouched on failure
/// @param[out] length  its length in bytes; untouched on failure
/// @return 0, or -1 on failure
int _ime_backup_get_json_value(char **value, gsize *length);

/// Returns the selected input languages in byte order. If their key can't be read at all, stores the default
/// under the key and returns the default.
LanguageList get_selected_lang_list();
