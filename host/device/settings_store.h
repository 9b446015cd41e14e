#pragma once

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "account.h"

/// Values by their keys. The store keeps booleans and texts.
using Settings = std::map<std::string, DeviceValue>;

/// The host's settings store, an SQLite database. Several processes may use it at once. It is opened when it
/// is first needed, and made when it is first written.
///
/// Every function throws PlatformError when the database can't be read or written, or holds what no store
/// does; while another locks it, they throw as wait_for_another() does. The first failure is the last
/// attempt: another would wait as long, and who could not read does not overwrite.
class SettingsStore
{
public:
    /// The process's store, which all share for as long as one of them or the account keeps it.
    static std::shared_ptr<SettingsStore> open();

    DeviceValue get(const std::string &key);

    /// The key itself, if it has a value, and all keys below it.
    Settings below(const std::string &key);

    /// Throws when nothing can be stored. Nothing is made.
    void require_writable();

    /// Stores values, all or none, whatever their keys held before, on the account. Where they hold them
    /// already, nothing is written. It outlives the process at once, and a power cut, too, unless the account
    /// is that of an exchange.
    void set(const Settings &settings);

    /// Has all that was stored outlive a power cut.
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
    std::optional<SQLite::Statement> select; ///< prepared when it is first run, as is the next
    std::optional<SQLite::Statement> replace;
    std::exception_ptr unreadable; ///< why, once it is known
    std::exception_ptr unwritable;
};
