#include "settings_store.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>

#include <SQLiteCpp/Transaction.h>
#include <glib.h>
#include <sqlite3.h>

#include "errors.h"
#include "files.h"
#include "paths.h"
#include "process.h"

namespace fs = std::filesystem;

static constexpr int SCHEMA_VERSION = 1;

static fs::path store_file()
{
    return state_root() / "settings.db";
}

[[noreturn]] static void refuse_store(const std::string &reason)
{
    throw PlatformError("the settings store " + store_file().string() + " can't be used: " + reason);
}

/// The error that ended the last wait for another process's lock.
static std::exception_ptr wait_failure;

/// SQLite's busy handler: waits for another process's lock. SQLite stops waiting when this returns 0.
static int wait_for_lock(void *, int)
{
    try {
        wait_for_another("another process that holds the settings store");
        return 1;
    } catch (...) {
        wait_failure = std::current_exception();
        return 0;
    }
}

/// Runs `work`, and converts its exceptions to errors with a message for people.
template <class Work>
static auto convert_errors(Work work)
{
    try {
        return work();
    } catch (const SQLite::Exception &error) {
        if (wait_failure)
            std::rethrow_exception(std::exchange(wait_failure, nullptr));
        refuse_store(error.what());
    } catch (const fs::filesystem_error &error) {
        refuse_store(error.what());
    } catch (const PlatformError &) {
        throw;
    } catch (const TimeoutError &) {
        throw;
    } catch (const HostError &error) {
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

/// The content of a new store's file, which will use a write-ahead log.
static std::string new_store()
{
    static constexpr size_t WRITE_VERSION = 18; // offsets in the file's header
    static constexpr size_t READ_VERSION = 19;
    static constexpr char WAL_MODE = 2; // a database in memory can't switch to it
    SQLite::Database database(":memory:", SQLite::OPEN_READWRITE);
    make_tables(database);
    sqlite3_int64 size = 0;
    const std::unique_ptr<unsigned char, decltype(&sqlite3_free)> image(
        sqlite3_serialize(database.getHandle(), "main", &size, 0), sqlite3_free);
    if (!image)
        throw std::bad_alloc();
    std::string content(image.get(), image.get() + size);
    content.at(WRITE_VERSION) = content.at(READ_VERSION) = WAL_MODE;
    return content;
}

/// Makes the store atomically, so that an incomplete file in its place is always a damaged store.
static void make_store(const fs::path &file)
{
    FileLock lock(file.string() + ".lock");
    lock.acquire();
    if (fs::exists(file))
        return;
    // If an old store was moved away, SQLite would apply its leftover log to the new store.
    for (const char *suffix : {"-wal", "-shm", "-journal"})
        if (const fs::path left = file.string() + suffix; fs::exists(fs::symlink_status(left)))
            remove_file_durably(left);
    create_file_durably(file, new_store());
}

std::shared_ptr<SettingsStore> SettingsStore::open()
{
    return share_in_account<SettingsStore>();
}

/// Opens the store if there is one.
bool SettingsStore::find_database()
{
    if (database)
        return true;
    if (!fs::exists(fs::symlink_status(store_file())))
        return false;
    if (!fs::is_regular_file(store_file()))
        refuse_store("it is not a regular file");
    open_database();
    return true;
}

void SettingsStore::open_database()
{
    const fs::path file = store_file();
    // A process that was killed leaves a log beside the store. A process that only reads leaves the log
    // alone; the next write merges it.
    std::error_code ignored;
    const bool keeps_log = fs::exists(file.string() + "-wal", ignored);
    database.emplace(file.string(), SQLite::OPEN_READWRITE);
    sqlite3_busy_handler(database->getHandle(), wait_for_lock, nullptr);
    sqlite3_db_config(database->getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, keeps_log ? 1 : 0, nullptr);
    // An exchange syncs once, at its end. In both modes, transactions stay atomic after a power cut.
    database->exec(account().is_started() ? "PRAGMA synchronous = NORMAL" : "PRAGMA synchronous = FULL");
    const int version = database->execAndGet("PRAGMA user_version").getInt();
    if (version > SCHEMA_VERSION)
        refuse_store("it was made by a later version");
    if (version != SCHEMA_VERSION)
        refuse_store("it is not a settings store");
}

/// Runs `work`, which reads the store. After a failure, neither reads nor writes are tried again.
template <class Work>
auto SettingsStore::read(Work work)
{
    if (read_failure)
        std::rethrow_exception(read_failure);
    try {
        return convert_errors(work);
    } catch (...) {
        read_failure = write_failure = std::current_exception();
        throw;
    }
}

template <class Work>
void SettingsStore::write(Work work)
{
    if (write_failure)
        std::rethrow_exception(write_failure);
    try {
        convert_errors(work);
    } catch (...) {
        write_failure = std::current_exception();
        throw;
    }
}

/// Reads a value from two columns: its type and its text.
static DeviceValue column_value(const SQLite::Statement &row, int type_column)
{
    const std::string type = row.getColumn(type_column).getString();
    const std::string text = row.getColumn(type_column + 1).getString();
    if (type == "bool" && (text == "0" || text == "1"))
        return text == "1";
    if (type == "string" && text.find('\0') == std::string::npos &&
        g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE)
        return text;
    refuse_store("it is damaged");
}

namespace
{

/// Prepares a statement on first use, and resets it at the end of the scope. Without a reset, the statement
/// would keep its read transaction open.
struct StatementReset {
    StatementReset(std::optional<SQLite::Statement> &prepared, const SQLite::Database &database,
                   const char *sql)
        : statement(prepared ? *prepared : prepared.emplace(database, sql))
    {
    }
    StatementReset(const StatementReset &) = delete;
    StatementReset &operator=(const StatementReset &) = delete;
    ~StatementReset() { statement.tryReset(); }

    SQLite::Statement &statement;
};

} // namespace

DeviceValue SettingsStore::get(const std::string &key)
{
    return read([&]() -> DeviceValue {
        if (!find_database())
            return std::nullopt;
        const StatementReset query(select, *database, "SELECT type, value FROM settings WHERE key = ?");
        query.statement.bind(1, key);
        return query.statement.executeStep() ? column_value(query.statement, 0) : std::nullopt;
    });
}

Settings SettingsStore::below(const std::string &key)
{
    return read([&]() -> Settings {
        if (!find_database())
            return {};
        // '0' is the character after '/'.
        SQLite::Statement query(*database, "SELECT key, type, value FROM settings"
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
    write([this] {
        if (!is_usable_folder(state_root()))
            throw PlatformError("can't write in " + state_root().string());
        if (!find_database())
            return;
        if (sqlite3_db_readonly(database->getHandle(), "main") != 0)
            refuse_store("it can't be written");
        // Waits for other writers as set() does. The destructor rolls back.
        const SQLite::Transaction probe(*database, SQLite::TransactionBehavior::IMMEDIATE);
    });
}

void SettingsStore::store(const std::string &key, const DeviceValue &value)
{
    if (!value) {
        SQLite::Statement remove(*database, "DELETE FROM settings WHERE key = ?");
        remove.bind(1, key);
        remove.exec();
        return;
    }
    const StatementReset insertion(replace, *database, "INSERT OR REPLACE INTO settings VALUES (?, ?, ?)");
    const bool *truth = std::get_if<bool>(&*value);
    insertion.statement.bind(1, key);
    insertion.statement.bind(2, truth != nullptr ? "bool" : "string");
    insertion.statement.bind(3, truth == nullptr ? std::get<std::string>(*value) : *truth ? "1" : "0");
    insertion.statement.exec();
}

void SettingsStore::set(const Settings &settings)
{
    const auto is_stored = [this](const auto &setting) { return get(setting.first) == setting.second; };
    if (std::all_of(settings.begin(), settings.end(), is_stored))
        return;
    write([&] { set_all(settings); });
}

void SettingsStore::set_all(const Settings &settings)
{
    if (!find_database()) {
        make_store(store_file());
        open_database();
    }
    sqlite3_db_config(database->getHandle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    std::vector<size_t> changes;
    const auto end_changes = [&](Change::Outcome outcome) {
        for (const size_t change : changes)
            account().end(change, outcome);
    };
    try {
        SQLite::Transaction transaction(*database, SQLite::TransactionBehavior::IMMEDIATE);
        for (const auto &[key, value] : settings)
            if (const DeviceValue before = get(key); before != value) {
                changes.push_back(account().begin({SettingPlace::settings_store, key, before, value}));
                store(key, value);
            }
        transaction.commit();
    } catch (...) {
        end_changes(Change::Outcome::refused);
        throw;
    }
    end_changes(Change::Outcome::made);
}

void SettingsStore::make_durable()
{
    if (!database) // nothing was written
        return;
    write([this] {
        int logged = 0;
        int done = 0;
        if (sqlite3_wal_checkpoint_v2(database->getHandle(), "main", SQLITE_CHECKPOINT_PASSIVE, &logged,
                                      &done) == SQLITE_OK &&
            logged == done)
            return;
        // Another process still reads an older state, or the disk is full. Syncing the log is enough.
        sqlite3_file *log = nullptr;
        if (sqlite3_file_control(database->getHandle(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) !=
                SQLITE_OK ||
            log->pMethods == nullptr || log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) != SQLITE_OK)
            refuse_store("changes may not survive a power cut");
    });
}
