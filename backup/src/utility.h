#pragma once

#include <string>
#include <vector>

#define Uses_SCIM_CONFIG_BASE
#include <scim.h>

/// A list of language identifiers, such as "en_US".
using LanguageList = std::vector<std::string>;

/// What read_vconfkeys() found.
enum {
    VCONFKEY_NO_STRING = 0,
    VCONFKEY_FOUND = 1,
    VCONFKEY_UNREADABLE = 2,
};

/// Reads a string key of the settings store. Only when it is found, `*value` is set to a new text for the
/// caller to free().
int read_vconfkeys(const char *key, char **value);

/// Stores a string under a key. 0 when it could not even be put into a key list; 1 otherwise, also when the
/// store refused it.
int update_vconfkeys(const char *key, const char *value);

/// Appends the pieces of `text` to `pieces`. Each delimiter ends a piece, be it empty; text behind the last
/// delimiter is one more.
LanguageList &split(const std::string &text, char delimiter, LanguageList &pieces);
LanguageList split(const std::string &text, char delimiter);

/// Opens the input-method configuration afresh. When it can't be opened, the handle is empty and `*failure`
/// is why, for the log.
scim::ConfigPointer open_input_method_config(const char **failure);
