// libvconf, on a real database.

#include "settings_store.h"

#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "host.h"
#include "state.h"
#include "vconf.h"

namespace
{

/// The library opens its store once, so all tests of its C interface share one.
class Vconf : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        root = new TempDir;
        setenv("IME_BACKUP_HOST_DIR", root->path.c_str(), 1);
    }
    static void TearDownTestSuite() { delete root; }

    static std::string get_string(const char *key)
    {
        char *text = vconf_get_str(key);
        const std::string copy = text == nullptr ? "(null)" : text;
        free(text);
        return copy;
    }

    static int set_string(const char *key, const char *value)
    {
        vconf_keylist_handle list = vconf_keylist_new();
        EXPECT_GE(vconf_keylist_add_str(list, key, value), 0);
        const int result = vconf_set(list);
        EXPECT_EQ(vconf_keylist_free(list), 0);
        return result;
    }

    static inline TempDir *root;
};

TEST_F(Vconf, KeepsTypesApart)
{
    EXPECT_EQ(vconf_set_bool("types/bool", 5), 0);
    EXPECT_EQ(set_string("types/text", "1"), 0);
    EXPECT_EQ(set_string("types/empty", ""), 0);

    int value = 42;
    EXPECT_EQ(vconf_get_bool("types/bool", &value), 0);
    EXPECT_EQ(value, 1);
    value = 42;
    EXPECT_EQ(vconf_get_bool("types/text", &value), -1);
    EXPECT_EQ(vconf_get_bool("types/missing", &value), -1);
    EXPECT_EQ(vconf_get_bool(nullptr, &value), -1);
    EXPECT_EQ(value, 42) << "a failed read leaves the value alone";

    EXPECT_EQ(get_string("types/text"), "1");
    EXPECT_EQ(get_string("types/empty"), "");
    EXPECT_EQ(get_string("types/bool"), "(null)");
    EXPECT_EQ(get_string("types/missing"), "(null)");

    EXPECT_EQ(vconf_set_bool("types/text", 0), 0);
    EXPECT_EQ(get_string("types/text"), "(null)") << "a set replaces the type too";
    EXPECT_EQ(vconf_set_bool("", 0), -1);

    vconf_keylist_handle list = vconf_keylist_new();
    EXPECT_LT(vconf_keylist_add_str(list, "types/text", "\xff"), 0);
    EXPECT_EQ(vconf_keylist_free(list), 0);
    EXPECT_LT(vconf_keylist_free(list), 0) << "a list is released once";
}

TEST_F(Vconf, ListsAKeyOrADirectory)
{
    ASSERT_EQ(set_string("dir/a", "A"), 0);
    ASSERT_EQ(set_string("dir/sub/b", "B"), 0);
    ASSERT_EQ(set_string("dirt", "no"), 0);
    ASSERT_EQ(vconf_set_bool("dir/flag", 1), 0);

    const struct {
        const char *directory;
        int option;
        bool found;
        std::vector<std::string> keys;
    } cases[] = {
        {"dir", 0, true, {"dir/a", "dir/sub/b", "dir/flag"}},
        {"dir/sub", 0, true, {"dir/sub/b"}},
        {"dir/a", 0, true, {"dir/a"}},
        {"dir/s", 0, false, {}},
        {"none", 0, false, {}},
        {"dir", 1, false, {}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.directory);
        vconf_keylist_handle list = vconf_keylist_new();
        EXPECT_EQ(vconf_get(list, test.directory, test.option) >= 0, test.found);
        for (const char *key : {"dir/a", "dir/sub/b", "dir/flag", "dirt"}) {
            vconf_keynode_handle node = nullptr;
            const bool wanted = std::find(test.keys.begin(), test.keys.end(), key) != test.keys.end();
            EXPECT_EQ(vconf_keylist_lookup(list, key, &node) >= 0, wanted) << key;
            const char *text = node == nullptr ? nullptr : vconf_keynode_get_str(node);
            const bool has_text = wanted && key != std::string("dir/flag");
            EXPECT_EQ(text != nullptr, has_text) << key;
        }
        vconf_keylist_free(list);
    }
}

TEST_F(Vconf, StoresOnlyWhatWasAdded)
{
    ASSERT_EQ(set_string("own/a", "old"), 0);
    vconf_keylist_handle list = vconf_keylist_new();
    ASSERT_EQ(vconf_get(list, "own/a", 0), 0);
    ASSERT_EQ(set_string("own/a", "new"), 0); // as another process might
    ASSERT_GE(vconf_keylist_add_str(list, "own/b", "B"), 0);
    EXPECT_EQ(vconf_set(list), 0);
    vconf_keylist_free(list);
    EXPECT_EQ(get_string("own/a"), "new");
    EXPECT_EQ(get_string("own/b"), "B");
}

/// Starts `work` in a process of its own that has a root of its own.
template <class Work>
pid_t start(const TempDir &root, Work work)
{
    const pid_t child = fork();
    if (child == 0) {
        setenv("IME_BACKUP_HOST_DIR", root.path.c_str(), 1);
        try {
            _exit(work() ? 0 : 1);
        } catch (const HostError &) {
            _exit(2);
        }
    }
    return child;
}

int wait_for(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SettingsStore, ProcessesAtOnceLoseNothing)
{
    constexpr int processes = 6;
    constexpr int keys = 20;
    const TempDir root;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; i++)
        children.push_back(start(root, [i] {
            SettingsStore store; // they race to make it
            for (int key = 0; key < keys; key++)
                store.set({{std::to_string(i) + "/" + std::to_string(key), "value"}});
            return true;
        }));
    for (const pid_t child : children)
        EXPECT_EQ(wait_for(child), 0);

    const auto all_are_there = [] {
        const SettingsStore store;
        size_t count = 0;
        for (int i = 0; i < processes; i++)
            count += store.below(std::to_string(i)).size();
        return count == size_t{processes} * keys;
    };
    EXPECT_EQ(wait_for(start(root, all_are_there)), 0);
}

TEST(SettingsStore, AKilledProcessLeavesWholeSets)
{
    const TempDir root;
    const auto write_pairs = [] {
        SettingsStore store;
        for (int i = 0;; i++)
            store.set({{"pair/a", std::to_string(i)}, {"pair/b", std::to_string(i)}});
        return true;
    };
    const auto pair_is_whole = [] {
        const SettingsStore store;
        return store.get("pair/a") == store.get("pair/b");
    };
    for (useconds_t round = 1; round <= 10; round++) {
        const pid_t writer = start(root, write_pairs);
        usleep(3000 * round);
        kill(writer, SIGKILL);
        wait_for(writer);
        EXPECT_EQ(wait_for(start(root, pair_is_whole)), 0);
    }
}

TEST(SettingsStore, RefusesWhatIsNoStoreAndLeavesItAlone)
{
    for (const std::string &content : {std::string("SQLite format 3"), std::string(4096, 'x')}) {
        const TempDir root;
        write_file(root.path / "settings.db", content);
        EXPECT_EQ(wait_for(start(root, [] { return SettingsStore().get("a").has_value(); })), 2);
        EXPECT_EQ(read_file(root.path / "settings.db"), content);
    }
}

TEST(SettingsStore, RefusesALaterVersion)
{
    const TempDir root;
    SQLite::Database(root.path / "settings.db", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE)
        .exec("PRAGMA user_version = 2");
    EXPECT_EQ(wait_for(start(root, [] { return SettingsStore().get("a").has_value(); })), 2);
}

} // namespace
