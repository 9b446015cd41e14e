#pragma once

#include <map>
#include <optional>
#include <string>
#include <variant>

#include <SQLiteCpp/Database.h>

/// A typed value of the settings store.
using SettingValue = std::variant<bool, std::string>;

/// Values by their keys.
using Settings = std::map<std::string, SettingValue>;

/// The host's settings store, an SQLite database. Several processes may use it at once.
/// Every function throws StateError when the database can't be read or written.
class SettingsStore
{
public:
    /// Opens the store below the state root, and makes it if there is none.
    SettingsStore();

    std::optional<SettingValue> get(const std::string &key) const;

    /// The key itself, if it has a value, and all keys below it.
    Settings below(const std::string &key) const;

    /// Throws when nothing can be stored.
    void require_writable();

    /// Stores values durably, all or none, whatever their keys held before.
    void set(const Settings &settings);

private:
    SQLite::Database database;
};
