// The settings store. It can't unset a key, so the checks write only keys that are set, to be able to put
// them back.

#include "vconf.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "check.h"
#include "ime_backup_settings.h"
#include "report.h"

namespace
{

struct StoredValue {
    enum Type { nothing, boolean, text } type;
    int number;            ///< of a boolean
    char content[1 << 14]; ///< of a text
};

/// A key list with one key, or with the keys below a directory.
struct List {
    explicit List(const std::string &directory = "")
    {
        if (handle == nullptr)
            fail("a list", "null");
        if (!directory.empty())
            expect(CALL(vconf_get(handle, directory.c_str(), VCONF_GET_KEYS)), 0);
    }
    ~List() { vconf_keylist_free(handle); }
    List(const List &) = delete;
    List &operator=(const List &) = delete;

    vconf_keylist_handle handle = CALL(vconf_keylist_new());
};

using Texts = std::vector<std::pair<std::string, std::string>>;

} // namespace

/// The settings' values before the checks, in the order of #SETTINGS.
static auto &saved = *make_shared_memory<std::array<StoredValue, SETTINGS.size()>>();

static constexpr char MISSING_KEY[] = "db/ise/ime_backup_check/missing";

/// A value that no list returns. If it changes, a failed call has written its output.
static const auto INVALID_NODE = reinterpret_cast<vconf_keynode_handle>(&saved);

// Saving the settings, and putting them back.

/// Fails the check if a value has two types at once, since it could not be put back.
static StoredValue read_stored(const char *key)
{
    StoredValue stored = {};
    int value = -1;
    char *text = CALL(vconf_get_str(key));
    if (CALL(vconf_get_bool(key, &value)) != -1 && value != -1) {
        if (text != nullptr)
            fail("-1 for a text", show(value));
        stored = {StoredValue::boolean, value, ""};
    } else if (text != nullptr && std::string(text).size() < sizeof stored.content) {
        stored.type = StoredValue::text;
        std::string(text).copy(stored.content, sizeof stored.content);
    }
    free(text);
    return stored;
}

static bool is_in_settings_store(size_t row)
{
    return SETTINGS[row].place == SettingPlace::settings_store;
}

static bool is_set(const StoredValue &stored)
{
    return stored.type != StoredValue::nothing;
}

static bool is_boolean(const StoredValue &stored)
{
    return stored.type == StoredValue::boolean;
}

static bool is_text(const StoredValue &stored)
{
    return stored.type == StoredValue::text;
}

static std::string describe(const StoredValue &stored)
{
    return stored.type == StoredValue::nothing ? "not set"
           : stored.type == StoredValue::text  ? show(stored.content)
                                               : show(stored.number);
}

static void save()
{
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_settings_store(i))
            saved[i] = read_stored(SETTINGS[i].key);
    if (const StoredValue missing = read_stored(MISSING_KEY); is_set(missing))
        fail("nothing under " + show(MISSING_KEY), describe(missing));
}

static int store_texts(const Texts &texts)
{
    const List list;
    for (const auto &[key, value] : texts)
        if (const int result = CALL(vconf_keylist_add_str(list.handle, key.c_str(), value.c_str()));
            result < 0)
            return result;
    return CALL(vconf_set(list.handle));
}

static void put_back()
{
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        const char *key = SETTINGS[i].key;
        if (!is_in_settings_store(i) || describe(read_stored(key)) == describe(saved[i]))
            continue;
        if (saved[i].type == StoredValue::boolean)
            vconf_set_bool(key, saved[i].number);
        else if (saved[i].type == StoredValue::text)
            store_texts({{key, saved[i].content}});
    }
    Differences differences;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_settings_store(i))
            differences.compare(SETTINGS[i].key, describe(saved[i]), describe(read_stored(SETTINGS[i].key)));
    differences.fail_if_any();
}

// Keys to check with.

static std::vector<std::string> find_keys(size_t count, bool (*fits)(const StoredValue &) = is_set)
{
    std::vector<std::string> keys;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (is_in_settings_store(i) && fits(saved[i]))
            keys.emplace_back(SETTINGS[i].key);
    if (keys.size() < count)
        skip("too few settings are set: set the keyboard's settings first");
    return keys;
}

static std::string find_key()
{
    return find_keys(1).back();
}

/// Returns a key that already holds a text, since a store may refuse a text under other keys.
static std::string find_text_key()
{
    return find_keys(1, is_text).front();
}

static int get_bool(const std::string &key)
{
    int value = -42;
    expect(CALL(vconf_get_bool(key.c_str(), &value)), 0);
    return value;
}

static void expect_no_bool(const char *key)
{
    int value = 42;
    expect(CALL(vconf_get_bool(key, &value)), -1);
    expect(value, 42, "the output: ");
}

static std::string get_text(const std::string &key)
{
    char *text = CALL(vconf_get_str(key.c_str()));
    if (text == nullptr)
        fail("a text", "null");
    const std::string copy = text;
    free(text);
    return copy;
}

static vconf_keynode_handle find_node(const List &list, const std::string &key)
{
    vconf_keynode_handle node = nullptr;
    if (const int result = CALL(vconf_keylist_lookup(list.handle, key.c_str(), &node)); result < 0)
        fail("0 or more", show(result));
    if (node == nullptr)
        fail("a node", "null");
    return node;
}

static std::string folder_of(const std::string &path)
{
    return path.substr(0, path.rfind('/'));
}

// The promises.

static constexpr Check CHECKS[] = {
    {"vconf_get_bool() returns -1 for a missing key, and leaves its output untouched",
     "The service would back up an unset switch as off, although an unset switch is on.",
     [] { expect_no_bool(MISSING_KEY); }},

    {"vconf_get_bool() returns 0, and sets a value of 0 or 1",
     "The service would treat a switch that was read as unreadable, or log a failure that did not happen.",
     [] {
         const auto keys = find_keys(1, is_boolean);
         if (const int value = get_bool(keys[0]); value != 0 && value != 1)
             fail("0 or 1", show(value));
     }},

    {"vconf_get_str() returns null for a missing key",
     "The service would restore languages that are not downloaded.",
     [] { expect(CALL(vconf_get_str(MISSING_KEY)), nullptr); }},

    {"vconf_get() returns a negative value if no key has the name, even if a key's name begins with it",
     "The service would not store the default languages when none are selected.",
     [] {
         const List list;
         expect_negative(CALL(vconf_get(list.handle, MISSING_KEY, VCONF_GET_KEYS)));
         std::string part = find_key();
         part.pop_back();
         expect_negative(CALL(vconf_get(list.handle, part.c_str(), VCONF_GET_KEYS)));
     }},

    {"vconf_get() finds a key by its full name, and by each directory above it",
     "The service would back up no languages, or overwrite the selected languages with the default.",
     [] {
         const std::string key = find_key();
         for (std::string path = key; path.find('/') != std::string::npos; path = folder_of(path))
             find_node(List(path), key);
     }},

    {"vconf_keylist_lookup() finds a key by its full name only, and otherwise leaves its output untouched",
     "The service would back up the languages of another key.",
     [] {
         const std::string key = find_key();
         const List list(folder_of(key));
         for (const std::string &part : {key.substr(0, key.size() - 1), key + "x", folder_of(key),
                                         key.substr(key.rfind('/') + 1), std::string()}) {
             vconf_keynode_handle node = INVALID_NODE;
             expect_negative(CALL(vconf_keylist_lookup(list.handle, part.c_str(), &node)));
             expect(node == INVALID_NODE, true, "the output is untouched: ");
         }
     }},

    {"vconf_keynode_get_str() returns a text that stays valid as long as its list",
     "The service would back up a text that another call has overwritten.",
     [] {
         const std::string key = find_text_key();
         const std::string text = get_text(key);
         const List list(key);
         const char *kept = CALL(vconf_keynode_get_str(find_node(list, key)));
         expect(kept, text);
         for (int i = 0; i < 100; i++) {
             const List other;
             vconf_keylist_add_str(other.handle, key.c_str(), "other");
             vconf_keynode_get_str(find_node(other, key));
             get_text(key);
         }
         note_call("vconf_keynode_get_str(), after other calls");
         expect(kept, text);
     }},

    {"vconf_get_str() returns a new text each time",
     "The service would free a text twice, or read a freed text.",
     [] {
         const std::string key = find_text_key();
         char *one = CALL(vconf_get_str(key.c_str()));
         char *other = CALL(vconf_get_str(key.c_str()));
         expect(one == other, false, "the same text: ");
         const std::string text = other;
         one[0] = '?';
         free(one);
         expect(other, text);
         free(other);
     }},

    {"null handles and texts are refused",
     "The service would crash after a failed call, since it goes on after failures.",
     [] {
         const List list;
         int value = 0;
         vconf_keynode_handle node = nullptr;
         expect(CALL(vconf_get_bool(nullptr, &value)), -1);
         expect(CALL(vconf_get_bool(MISSING_KEY, nullptr)), -1);
         expect(CALL(vconf_set_bool(nullptr, 1)), -1);
         expect(CALL(vconf_get_str(nullptr)), nullptr);
         expect_negative(CALL(vconf_get(nullptr, MISSING_KEY, VCONF_GET_KEYS)));
         expect_negative(CALL(vconf_get(list.handle, nullptr, VCONF_GET_KEYS)));
         expect_negative(CALL(vconf_keylist_lookup(nullptr, MISSING_KEY, &node)));
         expect_negative(CALL(vconf_keylist_lookup(list.handle, nullptr, &node)));
         expect(CALL(vconf_keynode_get_str(nullptr)), nullptr);
         expect_negative(CALL(vconf_keylist_add_str(nullptr, MISSING_KEY, "")));
         expect_negative(CALL(vconf_keylist_add_str(list.handle, nullptr, "")));
         expect_negative(CALL(vconf_keylist_add_str(list.handle, MISSING_KEY, nullptr)));
         expect_error(CALL(vconf_set(nullptr)));
         expect_negative(CALL(vconf_keylist_free(nullptr)));
     }},

    {"vconf_get_bool() reads what vconf_set_bool() stored: 1 for any value except 0",
     "A restored switch would not change, or get the opposite value.",
     [] {
         const std::vector<std::string> keys = find_keys(1, is_boolean);
         for (const int value : {1, 0, 5, 0, -1}) {
             for (size_t i = 0; i < keys.size(); i++)
                 expect(CALL(vconf_set_bool(keys[i].c_str(), i % 2 == 0 ? value : !value)), 0);
             for (size_t i = 0; i < keys.size(); i++)
                 expect(get_bool(keys[i]), (value != 0) == (i % 2 == 0) ? 1 : 0);
         }
     },
     Check::changes},

    {"a boolean replaces a text, and a text replaces a boolean",
     "The service would read a switch from a text, or languages from a switch.",
     [] {
         const std::string key = find_text_key();
         expect(CALL(vconf_set_bool(key.c_str(), 0)), 0);
         expect(store_texts({{key, "1"}}), 0);
         expect_no_bool(key.c_str());
         expect(CALL(vconf_set_bool(key.c_str(), 1)), 0);
         expect(get_bool(key), 1);
         expect(CALL(vconf_get_str(key.c_str())), nullptr);
         const List list(key);
         expect(CALL(vconf_keynode_get_str(find_node(list, key))), nullptr);
     },
     Check::changes},

    {"a value outlives the process that stored it, and other processes see it at once",
     "Restored settings would be lost when the service exits.",
     [] {
         const std::string key = find_text_key();
         run_in_process([&] { expect(store_texts({{key, "kept"}}), 0); });
         run_in_process([&] { expect(get_text(key), "kept"); });
         const pid_t reader = start_process([&] {
             get_text(key); // the library may cache the value
             raise(SIGSTOP);
             expect(get_bool(key), 1);
         });
         int status = 0;
         waitpid(reader, &status, WUNTRACED);
         if (WIFSTOPPED(status)) {
             run_in_process([&] { expect(CALL(vconf_set_bool(key.c_str(), 1)), 0); });
             kill(reader, SIGCONT);
             waitpid(reader, &status, 0);
         }
         end_if_process_failed(status);
     },
     Check::changes},

    {"vconf_set() stores the text that vconf_keylist_add_str() added",
     "The service would restore no languages, or other languages.",
     [] {
         const std::string key = find_text_key();
         for (const std::string &text : {std::string(), std::string("xx_XX#"), std::string(10'000, 'x'),
                                         std::string("\xc3\xa9 %s\n\\\"")}) {
             const List list;
             std::string buffer = text;
             std::string name = key;
             if (CALL(vconf_keylist_add_str(list.handle, name.c_str(), buffer.c_str())) < 0)
                 fail("0 or more", "a negative value");
             buffer.assign(buffer.size(), '?');
             name.assign(name.size(), '?');
             expect(CALL(vconf_set(list.handle)), 0);
             expect(get_text(key), text);
         }
     },
     Check::changes},

    {"vconf_set() stores all texts or none", "The service would leave the device between two states.",
     [] {
         std::vector<std::string> keys = find_keys(2);
         keys.resize(2);
         run_in_process([&] {
             if (store_texts({{keys[0], "old"}, {keys[1], "old"}}) != 0)
                 skip("the store refuses a text for a switch");
             if (store_texts({{keys[0], "new"}, {keys[1], "\xff is no UTF-8"}}) != 0)
                 for (const std::string &key : keys)
                     expect(get_text(key), "old");
         });
         for (int round = 0; round < 8; round++) {
             const pid_t writer = start_process([&] {
                 for (int i = 0;; i++)
                     store_texts({{keys[0], std::to_string(i)}, {keys[1], std::to_string(i)}});
             });
             usleep(5000);
             kill(writer, SIGKILL);
             waitpid(writer, nullptr, 0);
             run_in_process([&] {
                 const std::string texts[] = {get_text(keys[0]), get_text(keys[1])};
                 note_call("vconf_set() in a process that is killed");
                 expect(texts[0], texts[1]);
             });
         }
     },
     Check::changes},
};

extern const Library VCONF = {"vconf", CHECKS, save, put_back};
