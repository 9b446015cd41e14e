#pragma once

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "account.h"

/// Values by key. The store keeps booleans and texts.
using Settings = std::map<std::string, DeviceValue>;

/// The host's settings store, an SQLite database. Several processes may use it at once. The database is
/// opened on first use, and created on first write.
///
/// Every function throws PlatformError when the database can't be read or written or has invalid content, and
/// throws as wait_for_another() does while another process locks the database. After a failure, later calls
/// throw the same error without another attempt: a retry would wait as long again, and a database that can't
/// be read must not be overwritten.
class SettingsStore
{
public:
    /// Returns the process's store. The account and the callers share its ownership.
    static std::shared_ptr<SettingsStore> open();

    DeviceValue get(const std::string &key);

    /// Returns the values of a key and of all keys below it.
    Settings below(const std::string &key);

    /// Throws when nothing can be stored. Changes nothing.
    void require_writable();

    /// Stores all values or none, and notes the changes in the account. Writes nothing if the store has these
    /// values already. The changes survive a power cut once this returns or, in an exchange, once
    /// make_durable() does.
    void set(const Settings &settings);

    /// Makes sure that all changes survive a power cut.
    void make_durable();

private:
    bool find_database();
    void open_database();
    void store(const std::string &key, const DeviceValue &value);
    void set_all(const Settings &settings);

    template <class Work>
    auto read(Work work);
    template <class Work>
    void write(Work work);

    std::optional<SQLite::Database> database;
    std::optional<SQLite::Statement> select; ///< both statements are prepared on first use
    std::optional<SQLite::Statement> replace;
    std::exception_ptr read_failure; ///< thrown again by later reads
    std::exception_ptr write_failure;
};
