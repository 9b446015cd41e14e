#include "settings_store.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>

#include <SQLiteCpp/Savepoint.h>
#include <SQLiteCpp/Statement.h>
#include <glib.h>
#include <sqlite3.h>

#include "errors.h"
#include "files.h"
#include "paths.h"

namespace fs = std::filesystem;

static constexpr int BUSY_TIMEOUT_MS = 10'000;
static constexpr int SCHEMA_VERSION = 1;

static fs::path store_file()
{
    return state_root() / "settings.db";
}

[[noreturn]] static void refuse_store(const std::string &reason)
{
    throw PlatformError("the settings store " + store_file().string() + " can't be used: " + reason);
}

/// Runs `work`, and tells of its failure what a person needs to know.
template <class Work>
static auto with_clear_errors(Work work)
{
    try {
        return work();
    } catch (const SQLite::Exception &error) {
        refuse_store(error.what());
    }
}

static void make_tables(SQLite::Database &database)
{
    SQLite::Transaction transaction(database);
    database.exec("CREATE TABLE settings ("
                  "  key TEXT PRIMARY KEY,"
                  "  type TEXT NOT NULL CHECK (type IN ('bool', 'string')),"
                  "  value TEXT NOT NULL"
                  ") STRICT, WITHOUT ROWID");
    database.exec("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION));
    transaction.commit();
}

/// Makes the store, whole or not at all: what lies in its place is a store, or a damaged one.
static void make_store(const fs::path &file)
{
    FileLock lock(file.string() + ".lock");
    lock.acquire();
    if (fs::exists(file))
        return;

    // Left behind by a process that was killed, or by a store that was taken away.
    const fs::path partial = file.string() + ".new";
    for (const char *suffix : {"", "-wal", "-shm", "-journal"})
        fs::remove(partial.string() + suffix);
    for (const char *suffix : {"-wal", "-shm"})
        fs::remove(file.string() + suffix);

    // SQLite would let others read it, and gives its side files the mode of the database.
    open_file(partial, O_RDWR | O_CREAT | O_EXCL);
    {
        SQLite::Database database(partial.string(), SQLite::OPEN_READWRITE);
        database.exec("PRAGMA journal_mode = WAL");
        make_tables(database);
    }
    fs::rename(partial, file);
}

static SQLite::Database make_empty_database()
{
    SQLite::Database database(":memory:", SQLite::OPEN_READWRITE);
    make_tables(database);
    return database;
}

/// Finds the store, or makes it.
///
/// @return whether there is one, as there always is but in a trial
static bool provide_store(const fs::path &file, Account::Kind kind)
{
    if (kind == Account::Kind::real || fs::exists(file.parent_path()))
        make_private_folder(file.parent_path());
    try {
        if (!fs::exists(file) && kind == Account::Kind::trial)
            return false;
        if (!fs::exists(file))
            make_store(file);
        if (!fs::is_regular_file(file))
            refuse_store("it is no regular file");
    } catch (const fs::filesystem_error &error) {
        refuse_store(error.what());
    }
    return true;
}

static SQLite::Database open_database(Account::Kind kind, SettingsStore::Durability durability)
{
    const fs::path file = store_file();
    if (!provide_store(file, kind))
        return make_empty_database();

    // What a process that was killed left beside the store would go into it when a trial closes it.
    std::error_code ignored;
    const bool is_left_alone = kind == Account::Kind::trial && fs::exists(file.string() + "-wal", ignored);
    SQLite::Database database(file.string(), SQLite::OPEN_READWRITE, BUSY_TIMEOUT_MS);
    if (is_left_alone)
        sqlite3_db_config(database.getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    // Either way the store is never half written, whatever comes.
    database.exec(durability == SettingsStore::Durability::at_once ? "PRAGMA synchronous = FULL"
                                                                   : "PRAGMA synchronous = NORMAL");
    const int version = database.execAndGet("PRAGMA user_version").getInt();
    if (version > SCHEMA_VERSION)
        refuse_store("it was made by a later version");
    if (version != SCHEMA_VERSION)
        refuse_store("it is no settings store");
    return database;
}

SettingsStore::SettingsStore(Account::Kind the_kind, Durability durability)
    : kind(the_kind), database(with_clear_errors([&] { return open_database(the_kind, durability); }))
{
}

/// The value in two columns, its type and its text.
static DeviceValue column_value(const SQLite::Statement &row, int type_column)
{
    const std::string type = row.getColumn(type_column).getString();
    const std::string text = row.getColumn(type_column + 1).getString();
    if (type == "bool" && (text == "0" || text == "1"))
        return text == "1";
    if (type == "string" && g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE)
        return text;
    refuse_store("it is damaged");
}

namespace
{

/// A run of a statement, which is prepared once. It ends with the object: else it would go on reading.
struct Run {
    Run(std::optional<SQLite::Statement> &prepared, const SQLite::Database &database, const char *sql)
        : statement(prepared ? *prepared : prepared.emplace(database, sql))
    {
    }
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;
    ~Run() { statement.tryReset(); }

    SQLite::Statement &statement;
};

} // namespace

DeviceValue SettingsStore::get(const std::string &key) const
{
    return with_clear_errors([&]() -> DeviceValue {
        const Run run(select, database, "SELECT type, value FROM settings WHERE key = ?");
        run.statement.bind(1, key);
        return run.statement.executeStep() ? column_value(run.statement, 0) : std::nullopt;
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
            settings.emplace(query.getColumn(0).getString(), column_value(query, 1));
        return settings;
    });
}

void SettingsStore::require_writable()
{
    if (sqlite3_db_readonly(database.getHandle(), "main") != 0)
        refuse_store("it can't be written");
    if (trial) // nobody else writes until it is over
        return;
    // Waits for another writer as a set does; rolled back at the end.
    with_clear_errors(
        [this] { const SQLite::Transaction probe(database, SQLite::TransactionBehavior::IMMEDIATE); });
}

void SettingsStore::store(const std::string &key, const DeviceValue &value)
{
    if (!value) {
        SQLite::Statement remove(database, "DELETE FROM settings WHERE key = ?");
        remove.bind(1, key);
        remove.exec();
        return;
    }
    const Run run(replace, database, "INSERT OR REPLACE INTO settings VALUES (?, ?, ?)");
    const bool *truth = std::get_if<bool>(&*value);
    run.statement.bind(1, key);
    run.statement.bind(2, truth != nullptr ? "bool" : "string");
    run.statement.bind(3, truth == nullptr ? std::get<std::string>(*value) : *truth ? "1" : "0");
    run.statement.exec();
}

/// Does `work` whole or not at all.
template <class Work>
void SettingsStore::write(Work work)
{
    if (kind == Account::Kind::real) {
        SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
        work();
        transaction.commit();
        return;
    }
    if (!trial)
        trial.emplace(database, SQLite::TransactionBehavior::IMMEDIATE);
    SQLite::Savepoint savepoint(database, "before");
    work();
    savepoint.release();
}

void SettingsStore::set(const Settings &settings, const Observer &about_to_change)
{
    const auto is_held = [this](const auto &setting) { return get(setting.first) == setting.second; };
    if (std::all_of(settings.begin(), settings.end(), is_held))
        return;

    with_clear_errors([&] {
        write([&] {
            for (const auto &[key, value] : settings) {
                const DeviceValue before = get(key);
                if (before == value)
                    continue;
                about_to_change(key, before, value);
                store(key, value);
            }
        });
    });
}

void SettingsStore::make_durable()
{
    if (kind == Account::Kind::trial)
        return;
    int logged = 0;
    int done = 0;
    if (sqlite3_wal_checkpoint_v2(database.getHandle(), "main", SQLITE_CHECKPOINT_PASSIVE, &logged, &done) ==
            SQLITE_OK &&
        logged == done)
        return;
    // Another process still reads what was there before, or the disk is full: then the log has to do.
    sqlite3_file *log = nullptr;
    if (sqlite3_file_control(database.getHandle(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) != SQLITE_OK ||
        log->pMethods == nullptr || log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) != SQLITE_OK)
        refuse_store("what was stored may not outlive a power cut");
}
