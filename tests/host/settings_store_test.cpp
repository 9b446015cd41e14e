// libvconf, on a real database.

#include "settings_store.h"

#include <csignal>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <SQLiteCpp/Transaction.h>
#include <gtest/gtest.h>

#include "device.h"
#include "errors.h"
#include "host.h"
#include "vconf.h"

namespace
{

/// Gives each test a state root. Tests work in child processes, since a process opens its store only once.
class Store : public testing::Test
{
protected:
    template <class Work>
    pid_t start(Work work) const
    {
        const pid_t child = fork();
        if (child == 0) {
            setenv("IME_BACKUP_HOST_DIR", root.path.c_str(), 1);
            try {
                work();
            } catch (const std::exception &error) {
                ADD_FAILURE() << error.what();
            }
            _exit(HasFailure() ? 1 : 0);
        }
        return child;
    }

    static void expect_success(pid_t child)
    {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }

    template <class Work>
    void run(Work work) const
    {
        expect_success(start(work));
    }

    SQLite::Database open_raw() const
    {
        return {root.path / "settings.db", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE};
    }

    const TempDir root;
};

std::string get_string(const char *key)
{
    char *text = vconf_get_str(key);
    const std::string copy = text == nullptr ? "(null)" : text;
    free(text);
    return copy;
}

int set_string(const char *key, const char *value)
{
    vconf_keylist_handle list = vconf_keylist_new();
    EXPECT_GE(vconf_keylist_add_str(list, key, value), 0);
    const int result = vconf_set(list);
    EXPECT_EQ(vconf_keylist_free(list), 0);
    return result;
}

TEST_F(Store, ListsAKeyOrADirectory)
{
    run([] {
        EXPECT_EQ(set_string("dir/a", "A"), 0);
        EXPECT_EQ(set_string("dir/sub/b", "B"), 0);
        EXPECT_EQ(set_string("dirt", "no"), 0);
        EXPECT_EQ(vconf_set_bool("dir/flag", 1), 0);
        const struct {
            const char *directory;
            int option;
            std::string found;
        } cases[] = {
            {"dir", 0, "dir/a=A dir/sub/b=B dir/flag "},
            {"dir/sub", 0, "dir/sub/b=B "},
            {"dir/a", 0, "dir/a=A "},
            {"dir/s", 0, ""},
            {"none", 0, ""},
            {"dir", 1, ""},
        };
        for (const auto &test : cases) {
            vconf_keylist_handle list = vconf_keylist_new();
            EXPECT_EQ(vconf_get(list, test.directory, test.option) < 0, test.found.empty());
            std::string found;
            for (const char *key : {"dir/a", "dir/sub/b", "dir/flag", "dirt"}) {
                vconf_keynode_handle node = nullptr;
                if (vconf_keylist_lookup(list, key, &node) < 0)
                    continue;
                const char *text = vconf_keynode_get_str(node);
                found += key + (text == nullptr ? "" : "=" + std::string(text)) + " ";
            }
            EXPECT_EQ(found, test.found);
            vconf_keylist_free(list);
        }
    });
}

TEST_F(Store, StoresOnlyWhatWasAdded)
{
    run([] {
        EXPECT_EQ(set_string("own/a", "old"), 0);
        vconf_keylist_handle list = vconf_keylist_new();
        EXPECT_EQ(vconf_get(list, "own/a", 0), 0);
        EXPECT_EQ(set_string("own/a", "new"), 0); // as another process may do
        EXPECT_GE(vconf_keylist_add_str(list, "own/b", "B"), 0);
        EXPECT_EQ(vconf_set(list), 0);
        vconf_keylist_free(list);
        EXPECT_EQ(get_string("own/a") + get_string("own/b"), "newB");
    });
}

TEST_F(Store, ConcurrentProcessesLoseNothing)
{
    std::vector<pid_t> children;
    for (int i = 0; i < 6; i++)
        children.push_back(start([i] {
            SettingsStore store; // all of them try to create it
            for (int key = 0; key < 20; key++)
                store.set({{"all/" + std::to_string(i) + "/" + std::to_string(key), "value"}});
        }));
    for (const pid_t child : children)
        expect_success(child);
    run([] { EXPECT_EQ(SettingsStore().below("all").size(), 6 * 20); });
}

TEST_F(Store, IsPrivateAndMadeWhole)
{
    // The store was moved away; the -wal and -shm files of a killed process remain.
    run([this] {
        SettingsStore old;
        old.set({{"old", true}});
        for (const char *suffix : {"-wal", "-shm"})
            std::filesystem::copy(root.path / (std::string("settings.db") + suffix), root.path / suffix);
    });
    std::filesystem::remove(root.path / "settings.db");
    for (const char *suffix : {"-wal", "-shm"})
        std::filesystem::rename(root.path / suffix, root.path / (std::string("settings.db") + suffix));
    write_file(root.path / "settings.db-journal", "of an older one");
    write_file(root.path / "settings.db.new", "half a store");
    run([] {
        umask(022);
        SettingsStore().set({{"a", true}});
        EXPECT_EQ(SettingsStore().get("a"), DeviceValue(true));
        EXPECT_EQ(SettingsStore().get("old"), DeviceValue());
    });
    EXPECT_EQ(open_raw().execAndGet("PRAGMA journal_mode").getString(), "wal");
    std::set<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator(root.path)) {
        left.insert(entry.path().filename());
        EXPECT_EQ(entry.status().permissions(), std::filesystem::perms(0600)) << entry.path();
    }
    EXPECT_EQ(left, (std::set<std::string>{"settings.db", "settings.db.lock"}));
}

/// Returns a key's value in the store's file alone: a power cut may take away the log beside it.
std::string on_disk(const std::filesystem::path &root, const char *key)
{
    std::filesystem::copy_file(root / "settings.db", root / "copy.db",
                               std::filesystem::copy_options::overwrite_existing);
    const SQLite::Database copy((root / "copy.db").string());
    SQLite::Statement query(copy, "SELECT value FROM settings WHERE key = ?");
    query.bind(1, key);
    return query.executeStep() ? query.getColumn(0).getString() : "";
}

TEST_F(Store, SettingsAreDurableAtTheEndOfAnExchange)
{
    run([this] {
        account().start({});
        set_string("a", "first");
        EXPECT_EQ(on_disk(root.path, "a"), "");
        host_device()->make_durable();
        EXPECT_EQ(on_disk(root.path, "a"), "first");

        // While another process reads the old values, the new one is durable in the log only.
        SQLite::Database other = open_raw();
        const SQLite::Transaction reading(other);
        other.execAndGet("SELECT COUNT(*) FROM settings");
        set_string("a", "second");
        host_device()->make_durable();
        EXPECT_EQ(on_disk(root.path, "a"), "first");
        EXPECT_EQ(get_string("a"), "second");
    });
}

TEST_F(Store, ASecondConnectionInTheProcessLeavesTheLocksOfTheFirst)
{
    run([] { SettingsStore().set({{"a", true}}); });
    int holding[2];
    int release[2];
    ASSERT_EQ(pipe(holding) + pipe(release), 0);
    char byte = 0;
    const pid_t holder = start([&] {
        SQLite::Database first = open_raw();
        first.exec("BEGIN IMMEDIATE");
        SettingsStore second;
        second.get("a");
        EXPECT_EQ(write(holding[1], &byte, 1) + read(release[0], &byte, 1), 2);
    });
    ASSERT_EQ(read(holding[0], &byte, 1), 1);
    EXPECT_THROW(open_raw().exec("BEGIN IMMEDIATE"), SQLite::Exception);
    ASSERT_EQ(write(release[1], &byte, 1), 1);
    expect_success(holder);
}

// The library notes its changes to the device in the account.

TEST_F(Store, EachChangeIsNotedAndAnEqualValueIsNotWritten)
{
    run([this] {
        std::string outcomes;
        account().start([&](size_t number, const Change &change) {
            outcomes += std::to_string(number) + (change.outcome == Change::Outcome::pending ? "?" : "!");
        });
        EXPECT_EQ(vconf_set_bool("flag", 0), 0);
        EXPECT_EQ(vconf_set_bool("flag", 7), 0);
        SQLite::Database watcher = open_raw();
        const int version = watcher.execAndGet("PRAGMA data_version").getInt();
        EXPECT_EQ(vconf_set_bool("flag", 1), 0);
        EXPECT_EQ(watcher.execAndGet("PRAGMA data_version").getInt(), version);

        EXPECT_EQ(outcomes, "0?0!1?1!");
        EXPECT_EQ(account().changes().at(0).before, DeviceValue());
        const Change &change = account().changes().at(1);
        EXPECT_EQ(change.key, "flag");
        EXPECT_EQ(change.before, DeviceValue(false));
        EXPECT_EQ(change.after, DeviceValue(true));
        EXPECT_EQ(change.outcome, Change::Outcome::made);
        EXPECT_TRUE(account().problems().empty());
    });
}

TEST_F(Store, ARefusedChangeIsNotMade)
{
    for (const DeviceValue &before : {DeviceValue(), DeviceValue("old")}) {
        run([&] {
            account().start([](size_t, const Change &change) {
                if (change.key == "z" && change.outcome == Change::Outcome::pending)
                    throw PlatformError("it must not");
            });
            vconf_keylist_handle list = vconf_keylist_new();
            vconf_keylist_add_str(list, "a", "half");
            vconf_keylist_add_str(list, "z", "");
            EXPECT_EQ(vconf_set(list), -1);
            EXPECT_EQ(account().changes().back().outcome, Change::Outcome::refused);
            EXPECT_EQ(account().problems().at(0).reason, "it must not");
            vconf_keylist_free(list);
            EXPECT_EQ(SettingsStore().get("a"), before);
            EXPECT_THROW(host_device()->write(SETTINGS[1], 7), ValueError);
        });
        run([] { SettingsStore().set({{"a", "old"}}); });
    }
}

TEST_F(Store, AReaderMakesNoFiles)
{
    const auto contents = [this] {
        std::map<std::string, std::string> files;
        for (const auto &entry : std::filesystem::directory_iterator(root.path))
            if (!entry.path().string().ends_with("-shm"))
                files[entry.path()] = read_file(entry.path());
        return files;
    };
    const auto expect_untouched = [&](const DeviceValue &value) {
        const auto files = contents();
        run([&] {
            EXPECT_EQ(host_device()->read_one(SETTINGS[1]), value);
            host_device()->require_writable(SETTINGS[1]);
        });
        EXPECT_EQ(contents(), files);
    };
    expect_untouched({});
    const pid_t killed = start([] {
        host_device()->write(SETTINGS[1], "old");
        raise(SIGKILL); // the value is still in the log
    });
    waitpid(killed, nullptr, 0);
    expect_untouched("old");
    run([] { host_device()->write(SETTINGS[1], "new"); });
    expect_untouched("new");
}

TEST_F(Store, AProcessThatCouldNotReadDoesNotOverwrite)
{
    const auto expect_flag = [](int result, int expected) {
        int value = 42;
        const size_t problems = account().problems().size();
        EXPECT_EQ(vconf_get_bool("missing", &value), -1);
        EXPECT_EQ(account().problems().size(), problems) << "a key that is not set is no problem";
        EXPECT_EQ(vconf_get_bool("flag", &value), result);
        EXPECT_EQ(value, expected);
    };
    run([] { EXPECT_EQ(vconf_set_bool("flag", 1), 0); });
    // A process that couldn't read a value does not write it, even once the damage is mended.
    run([&] {
        open_raw().exec("UPDATE settings SET value = 'x'");
        expect_flag(-1, 42);
        open_raw().exec("UPDATE settings SET value = '1'");
        EXPECT_EQ(vconf_set_bool("flag", 0), -1);
        EXPECT_EQ(account().problems().size(), 1);
        EXPECT_TRUE(account().changes().empty());
    });
    // A value of another type may be overwritten.
    run([] {
        free(vconf_get_str("flag"));
        EXPECT_TRUE(account().problems().empty());
        EXPECT_EQ(vconf_set_bool("flag", 0), 0);
    });
    // A process that couldn't write does not write again, but reads.
    run([&] {
        open_raw().exec("CREATE TRIGGER full BEFORE INSERT ON settings"
                        " BEGIN SELECT RAISE(ABORT, 'full'); END");
        EXPECT_EQ(vconf_set_bool("flag", 1), -1);
        open_raw().exec("DROP TRIGGER full");
        EXPECT_EQ(vconf_set_bool("other", 1), -1);
        EXPECT_EQ(account().problems().size(), 1);
        EXPECT_EQ(account().changes().size(), 1);
        EXPECT_EQ(account().changes().at(0).before, DeviceValue(false));
        EXPECT_EQ(account().changes().at(0).outcome, Change::Outcome::refused);
        expect_flag(0, 0);
    });
}

} // namespace
