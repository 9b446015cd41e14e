#pragma once

#include <string>
#include <vector>

#define Uses_SCIM_CONFIG_BASE
#include <scim.h>

/// A list of language identifiers, such as "en_US".
using LanguageList = std::vector<std::string>;

/// Results of read_vconfkeys().
enum {
    VCONFKEY_NO_STRING = 0,
    VCONFKEY_FOUND = 1,
    VCONFKEY_UNREADABLE = 2,
};

/// Reads a string from the settings store. Only if it is found, sets `*value` to a new text for the caller to
/// free().
int read_vconfkeys(const char *key, char **value);

/// Stores a string under a key. Returns 0 when the string can't be added to a key list, otherwise 1, even if
/// the store refuses the string.
int update_vconfkeys(const char *key, const char *value);

/// Appends the pieces of `text` to `pieces`. Each delimiter ends a piece, which may be empty. Text after the
/// last delimiter is another piece.
LanguageList &split(const std::string &text, char delimiter, LanguageList &pieces);
LanguageList split(const std::string &text, char delimiter);

/// Opens the input-method configuration anew. On failure, returns an empty handle and sets `*failure` to the
/// reason, for the log.
scim::ConfigPointer open_input_method_config(const char **failure);
