#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include "account.h"

/// Values by their keys. The store keeps booleans and texts.
using Settings = std::map<std::string, DeviceValue>;

/// The host's settings store, an SQLite database. Several processes may use it at once.
/// Every function throws PlatformError when the database can't be read or written, or holds what no store
/// does.
///
/// What is stored in a trial is only there for as long as the object is.
class SettingsStore
{
public:
    enum class Durability {
        at_once,
        later ///< by make_durable(), or when the store is closed; each set outlives the process all the same
    };

    /// Opens the store below the state root. If there is none it is made; that of a trial is then empty.
    explicit SettingsStore(Account::Kind kind = Account::Kind::real,
                           Durability durability = Durability::at_once);

    DeviceValue get(const std::string &key) const;

    /// The key itself, if it has a value, and all keys below it.
    Settings below(const std::string &key) const;

    /// Throws when nothing can be stored.
    void require_writable();

    /// Told of a key whose value is about to change.
    using Observer =
        std::function<void(const std::string &key, const DeviceValue &before, const DeviceValue &after)>;

    /// Stores values, all or none, whatever their keys held before. Where they hold them already, nothing is
    /// written.
    void set(const Settings &settings, const Observer &about_to_change);

    /// Has all that was stored outlive a power cut.
    void make_durable();

private:
    template <class Work>
    void write(Work work);

    void store(const std::string &key, const DeviceValue &value);

    const Account::Kind kind;
    SQLite::Database database;
    mutable std::optional<SQLite::Statement> select; ///< prepared when it is first run, as is the next
    std::optional<SQLite::Statement> replace;
    std::optional<SQLite::Transaction> trial; ///< never committed, from a trial's first write
};
