// The history, on real files.

#include "history.h"

#include <algorithm>
#include <csignal>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "host.h"

namespace fs = std::filesystem;

namespace
{

const DeviceState DEVICE = {"kbd\xff", "en_US#", true, {}, 1, 7, true, "often", {}, {}, ""};

class History : public testing::Test
{
protected:
    History() { setenv("IME_BACKUP_HOST_DIR", root.path.c_str(), 1); }

    static void add(const std::string &what, const NamedValues &planned, bool is_whole = true,
                    EntryNumber undoes = 0)
    {
        HistoryWriter entry(what, undoes);
        std::vector<std::string> changed;
        for (const auto &[member, value] : planned)
            changed.push_back(member);
        if (!planned.empty())
            entry.plan(name_values(DEVICE), planned);
        if (is_whole)
            entry.finish(true, "", changed);
    }

    static std::string undone()
    {
        std::string text;
        for (const HistoryEntry &entry : read_history())
            text += std::to_string(entry.number) + (entry.is_undone ? "- " : " ");
        return text + (next() == 0 ? "" : "next " + std::to_string(next()));
    }

    static EntryNumber next()
    {
        const std::vector<HistoryEntry> entries = read_history();
        const HistoryEntry *entry = find_undoable(entries);
        return entry == nullptr ? 0 : entry->number;
    }

    const TempDir root;
    const fs::path journal = root.path / "history.jsonl";
};

bool is_same(const HistoryEntry &one, const HistoryEntry &other)
{
    return one.number == other.number && one.time == other.time && one.operation == other.operation &&
           one.backup == other.backup && one.undoes == other.undoes && one.before == other.before &&
           one.planned == other.planned && one.succeeded == other.succeeded && one.reason == other.reason &&
           one.changed == other.changed;
}

TEST_F(History, ReturnsWhatWasWritten)
{
    EXPECT_TRUE(read_history().empty());
    require_writable_history();
    EXPECT_FALSE(fs::exists(journal));
    HistoryWriter entry("restore");
    entry.set_backup(3, "here");
    entry.plan(name_values(DEVICE), {{"prediction", true}});
    entry.plan({}, {{"selected_lang", {}}});
    const HistoryEntry open = read_history().at(0);
    EXPECT_FALSE(open.succeeded.has_value());
    EXPECT_EQ(open.changed, (std::vector<std::string>{"selected_lang", "prediction"}))
        << "as far as it is known";
    entry.finish(false, "why\n", {"selected_lang"});
    const HistoryEntry whole = read_history().at(0);
    EXPECT_EQ(whole.changed, std::vector<std::string>{"selected_lang"});
    EXPECT_EQ(whole.succeeded, false);
    EXPECT_EQ(whole.reason, "why\n");
    for (const SettingRow &row : ALL_SETTINGS)
        EXPECT_EQ(whole.before.at(row.member), DEVICE[index_of(row)]) << row.member;
    EXPECT_EQ(highest_backup("here"), 3);
    EXPECT_EQ(highest_backup("elsewhere"), 0);
}

TEST_F(History, GoesFurtherBackWithEachUndo)
{
    add("settings set", {{"prediction", true}});
    add("backup", {});
    add("restore", {{"prediction", false}});
    add("backup", {{"selected_lang", "en_US#"}});
    add("restore", {});
    EXPECT_EQ(undone(), "1 2 3 4 5 next 3");
    add("undo", {{"prediction", true}}, false, 3);
    EXPECT_EQ(undone(), "1 2 3 4 5 6 next 3") << "it was interrupted";
    add("undo", {{"prediction", true}}, true, 3);
    add("undo", {}, true, 1);
    EXPECT_EQ(undone(), "1- 2 3- 4 5 6 7 8 ");
    add("undo", {{"prediction", false}}, true, 7);
    EXPECT_EQ(undone(), "1- 2 3 4 5 6 7- 8 9 next 3");
}

TEST_F(History, AnyDamageShows)
{
    add("restore", {{"prediction", true}});
    add("settings set", {{"key_tap_vib", 1}});
    const std::string text = read_file(journal);
    const std::vector<HistoryEntry> entries = read_history();
    for (size_t i = 0; i < text.size(); i += 13) {
        for (const char change : {'\x01', '\x20', '\x80'}) {
            std::string damaged = text;
            damaged[i] = static_cast<char>(damaged[i] ^ change);
            write_file(journal, damaged);
            bool is_seen = i + 1 == text.size(); // without its newline, the last line counts as being written
            for (const HistoryEntry &entry : read_history()) {
                const bool is_as_it_was =
                    std::ranges::any_of(entries, [&](const auto &known) { return is_same(known, entry); });
                EXPECT_TRUE(is_as_it_was || !entry.fault.empty() || is_seen) << i;
                is_seen = is_seen || !entry.fault.empty();
            }
            EXPECT_TRUE(is_seen) << i;
            add("backup", {});
            EXPECT_EQ(read_history().back().fault, "") << i;
            EXPECT_EQ(read_history().back().operation, "backup") << i;
        }
        // After a power cut, data that wasn't synced is missing or NUL bytes.
        const size_t last_line = text.find_last_of('\n', text.size() - 2) + 1;
        for (const std::string &tail : {std::string(), std::string(5, '\0'),
                                        i < last_line ? "" : std::string(5, '\0') + text.substr(i)}) {
            write_file(journal, text.substr(0, i) + tail);
            for (const HistoryEntry &entry : read_history())
                EXPECT_EQ(entry.fault, "") << i;
            add("backup", {});
            EXPECT_EQ(read_history().back().operation, "backup") << i;
        }
    }
    write_file(journal, text.substr(0, text.find('\n') + 1) + "no line\n");
    EXPECT_THROW(next(), HostError);
    add("settings set", {{"prediction", true}});
    EXPECT_EQ(undone(), "1 2 next 2");
}

TEST_F(History, KeepsTheNewestAndUndoableEntries)
{
    add("restore", {{"prediction", true}});
    add("restore", {{"prediction", false}});
    add("undo", {{"prediction", true}}, true, 2);
    for (int i = 0; i < 320; i++)
        add("backup", {});
    const std::vector<HistoryEntry> entries = read_history();
    ASSERT_EQ(entries.size(), 202U);
    EXPECT_EQ(entries[0].number, 1);
    EXPECT_EQ(entries[1].number, 3);
    EXPECT_EQ(entries[2].number, 124);
    EXPECT_EQ(entries.back().number, 323);
    EXPECT_LT(fs::file_size(journal), 202 * 200);
}

TEST_F(History, ImportsTheNoteOfAnEarlierVersion)
{
    const std::string begin =
        R"({"backup":2,"changes":[],"operation":"restore","reason":"","records":[],"result":"undecided","settings":[]})"
        "\n";
    const std::string change =
        R"({"after":true,"before":{"base64":"/w=="},"change":0,"key":"db/ise/engine/prediction_val","outcome":"OUTCOME","place":"settings store"})"
        "\n";
    const auto with = [&](const char *outcome) {
        std::string text = change;
        return text.replace(text.find("OUTCOME"), 7, outcome);
    };
    const fs::path note = root.path / "last-restore.json";
    const struct {
        std::string text;
        bool is_readable;
        size_t changed;
    } cases[] = {
        {begin + with("pending"), true, 1},
        {begin + with("pending") + with("made") + "{\"half", true, 1},
        {begin + with("refused"), true, 0},
        {begin, true, 0},
        {"", false, 0},
        {begin + "{}\n", false, 0},
        {begin + with("made").replace(40, 12, "base64xx"), false, 0},
        {begin + std::string(with("made")).replace(with("made").find("prediction"), 10, "persuasion"), false,
         0},
    };
    EntryNumber number = 0;
    for (const auto &test : cases) {
        SCOPED_TRACE(test.text);
        number++;
        write_file(note, test.text);
        write_file(root.path / "last-exchange.json", "{}");
        fs::last_write_time(note, fs::file_time_type::clock::now() - std::chrono::hours(number));
        const HistoryEntry seen = read_history().back();
        EXPECT_TRUE(fs::exists(note)) << "reading the note leaves it there";
        EXPECT_EQ(seen.number, number);
        EXPECT_EQ(seen.fault.empty(), test.is_readable) << seen.fault;
        EXPECT_EQ(seen.changed.size(), test.changed);
        if (test.changed != 0) {
            EXPECT_EQ(seen.before.at("prediction"), DeviceValue("\xff"));
        }
        add("backup", {});
        const std::vector<HistoryEntry> entries = read_history();
        EXPECT_TRUE(is_same(entries.at(entries.size() - 2), seen));
        EXPECT_FALSE(fs::exists(note));
        EXPECT_FALSE(fs::exists(root.path / "last-exchange.json"));
        EXPECT_EQ(fs::exists(note.string() + ".damaged"), !test.is_readable);
        fs::remove(note.string() + ".damaged");
        number++;
    }
}

TEST_F(History, AnEntryThatCannotBeWrittenIsRefused)
{
    signal(SIGXFSZ, SIG_IGN);
    add("restore", {{"prediction", true}});
    const std::string text = read_file(journal);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    for (rlim_t left = 0; left < 400; left += 40) {
        const rlimit full = {text.size() + left, limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        EXPECT_THROW(add("restore", {{"prediction", false}}), PlatformError);
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(next(), 1);
        add("backup", {});
        EXPECT_EQ(read_history().back().succeeded, true);
        write_file(journal, text);
    }
}

} // namespace
