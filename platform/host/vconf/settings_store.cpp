#include "settings_store.h"

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <sqlite3.h>

#include "file_lock.h"
#include "state.h"

namespace fs = std::filesystem;

static constexpr int BUSY_TIMEOUT_MS = 10'000;
static constexpr int SCHEMA_VERSION = 1;

static fs::path store_file()
{
    return state_root() / "settings.db";
}

/// Runs `work`, and tells of its failure what a person needs to know.
template <class Work>
static auto with_clear_errors(Work work)
{
    try {
        return work();
    } catch (const SQLite::Exception &error) {
        throw StateError("the settings store " + store_file().string() + " can't be used: " + error.what());
    }
}

static SQLite::Database open_database()
{
    make_private_folder(store_file().parent_path());

    // SQLite gives its side files the mode of the database, which it would make readable by all.
    const int file = open(store_file().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file >= 0)
        close(file);

    return {store_file().string(), SQLite::OPEN_READWRITE, BUSY_TIMEOUT_MS};
}

static void prepare(SQLite::Database &database)
{
    const auto version = [&] { return database.execAndGet("PRAGMA user_version").getInt(); };

    database.exec("PRAGMA synchronous = FULL");
    const int found = version();
    if (found > SCHEMA_VERSION)
        throw StateError("the settings store " + store_file().string() + " was made by a later version");
    if (found == SCHEMA_VERSION)
        return;

    // SQLite does not wait for another process that changes the journal mode at the same time.
    FileLock lock(store_file().string() + ".lock");
    lock.acquire();
    if (version() == SCHEMA_VERSION)
        return;
    database.exec("PRAGMA journal_mode = WAL");
    SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
    database.exec("CREATE TABLE IF NOT EXISTS settings ("
                  "  key TEXT PRIMARY KEY,"
                  "  type TEXT NOT NULL CHECK (type IN ('bool', 'string')),"
                  "  value TEXT NOT NULL"
                  ") STRICT, WITHOUT ROWID");
    database.exec("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION));
    transaction.commit();
}

static SettingValue column_value(const SQLite::Column &type, const SQLite::Column &value)
{
    if (type.getString() == "bool")
        return value.getInt() != 0;
    return value.getString();
}

SettingsStore::SettingsStore() : database(with_clear_errors(open_database))
{
    with_clear_errors([this] { prepare(database); });
}

std::optional<SettingValue> SettingsStore::get(const std::string &key) const
{
    return with_clear_errors([&]() -> std::optional<SettingValue> {
        SQLite::Statement query(database, "SELECT type, value FROM settings WHERE key = ?");
        query.bind(1, key);
        if (!query.executeStep())
            return std::nullopt;
        return column_value(query.getColumn(0), query.getColumn(1));
    });
}

Settings SettingsStore::below(const std::string &key) const
{
    return with_clear_errors([&] {
        // '0' is the character behind '/'.
        SQLite::Statement query(database, "SELECT key, type, value FROM settings"
                                          " WHERE key = ?1 OR (key > ?1 || '/' AND key < ?1 || '0')");
        query.bind(1, key);
        Settings settings;
        while (query.executeStep())
            settings.emplace(query.getColumn(0).getString(),
                             column_value(query.getColumn(1), query.getColumn(2)));
        return settings;
    });
}

void SettingsStore::require_writable()
{
    if (sqlite3_db_readonly(database.getHandle(), "main") != 0)
        throw StateError("the settings store " + store_file().string() + " can't be written");
    // Waits for another writer as a set does; rolled back at the end.
    with_clear_errors(
        [this] { const SQLite::Transaction probe(database, SQLite::TransactionBehavior::IMMEDIATE); });
}

void SettingsStore::set(const Settings &settings)
{
    with_clear_errors([&] {
        SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
        SQLite::Statement update(database, "INSERT OR REPLACE INTO settings VALUES (?, ?, ?)");
        for (const auto &[key, value] : settings) {
            update.reset();
            update.bind(1, key);
            if (const bool *truth = std::get_if<bool>(&value)) {
                update.bind(2, "bool");
                update.bind(3, *truth ? "1" : "0");
            } else {
                update.bind(2, "string");
                update.bind(3, std::get<std::string>(value));
            }
            update.exec();
        }
        transaction.commit();
    });
}
