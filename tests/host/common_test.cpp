// The code that the host's libraries share, and libdlog.

#include <fcntl.h>
#include <regex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "child.h"
#include "dlog.h"
#include "errors.h"
#include "files.h"
#include "host.h"
#include "text.h"

namespace fs = std::filesystem;

namespace
{

TEST(Text, IsEscapedToOneHarmlessLine)
{
    const struct {
        std::string text;
        const char *escaped;
    } cases[] = {
        {"", ""},
        {"plain \\ \"text\" \xc3\xa9 \xea\xb0\x80", "plain \\ \"text\" \xc3\xa9 \xea\xb0\x80"},
        {"a\nb\tc\x7f", R"(a\x0ab\x09c\x7f)"},
        {"\033[2J", R"(\x1b[2J)"},
        {"\xc2\x9b"
         "2J",
         R"(\u009b2J)"},
        {"\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\x8b", R"(\u2028\u2029\u200b)"},
        {"\xff \xe2\x80", R"(\xff \xe2\x80)"},
        {std::string("a\0b", 3), R"(a\x00b)"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(escaped(test.text), test.escaped);
}

TEST(Log, OneMessageIsOneLine)
{
    static constexpr char coloured[] = "main.cpp > \033[0;35m* Info * %s\n\033[0;m";
    static constexpr char plain[] = "%s\n";
    const struct {
        int priority;
        char letter;
        const char *format;
        const char *text;
        const char *written;
    } cases[] = {
        {4, 'I', coloured, "ready", "main.cpp > * Info * ready"},
        {6, 'E', coloured, "[a\nb\033[31m\033[0;m]", R"(main.cpp > * Info * [a\x0ab\x1b[31m\x1b[0;m])"},
        {6, 'E', plain, "\033[31mred", R"(\x1b[31mred)"},
        {99, '?', plain, "", ""},
        {-1, '?', "%s", "\n\n", R"(\x0a)"},
    };
    for (const auto &test : cases) {
        testing::internal::CaptureStderr();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int written = __dlog_print(2, test.priority, "TAG", test.format, test.text);
#pragma GCC diagnostic pop
        const std::string line = testing::internal::GetCapturedStderr();
        EXPECT_EQ(written, line.size());
        const std::regex head(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.) TAG \d+: )");
        std::smatch match;
        ASSERT_TRUE(std::regex_search(line, match, head)) << line;
        EXPECT_EQ(match[1], std::string(1, test.letter));
        EXPECT_EQ(match.suffix(), std::string(test.written) + "\n");
    }
}

Child shell(const std::string &script)
{
    return {.program = "sh", .arguments = {"-c", script}};
}

volatile std::sig_atomic_t handled_signals;

void count_signal(int)
{
    handled_signals = handled_signals + 1;
}

TEST(Child, IsStoppedAndWaitedFor)
{
    static constexpr gint64 LONG_US = 20'000'000;
    const struct {
        const char *script;
        gint64 microseconds;
        int exit_status;
        int signal; ///< that killed the child
        StopReason stopped;
        int handled; ///< signals that reach their handler afterwards
    } cases[] = {
        {"exit 7", LONG_US, 7, 0, StopReason::none, 0},
        {"kill -HUP $$", LONG_US, 0, SIGHUP, StopReason::none, 0},
        {"kill -PIPE $$", LONG_US, 0, SIGPIPE, StopReason::none, 0},
        {"exec sleep 20", 100'000, 0, SIGTERM, StopReason::timed_out, 0},
        {"trap 'exit 3' TERM; while :; do sleep 0.01; done", 100'000, 3, 0, StopReason::timed_out, 0},
        {"trap '' TERM; exec sleep 20", 100'000, 0, SIGKILL, StopReason::timed_out, 0},
        {"kill -TERM $PPID; exec sleep 20", LONG_US, 0, SIGTERM, StopReason::interrupted, 1},
        {"kill -INT $PPID; exec sleep 20", LONG_US, 0, SIGTERM, StopReason::interrupted, 1},
        {"kill -HUP $PPID; exec sleep 20", LONG_US, 0, SIGTERM, StopReason::interrupted, 1},
        {"trap '' TERM; kill -INT $PPID; sleep 0.2; kill -INT $PPID; exec sleep 20", LONG_US, 0, SIGKILL,
         StopReason::interrupted, 1},
    };
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        std::signal(signal, count_signal);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.script);
        handled_signals = 0;
        Child child = shell(test.script);
        child.time_limit_us = test.microseconds;
        const ChildResult end = run_child(child);
        EXPECT_EQ(end.error, 0);
        EXPECT_EQ(WIFSIGNALED(end.status) ? WTERMSIG(end.status) : 0, test.signal);
        EXPECT_EQ(WIFEXITED(end.status) ? WEXITSTATUS(end.status) : 0, test.exit_status);
        EXPECT_EQ(end.stopped, test.stopped);
        EXPECT_EQ(handled_signals, test.handled);
    }
    EXPECT_EQ(std::signal(SIGHUP, SIG_IGN), count_signal);
    EXPECT_EQ(run_child(shell("kill -HUP $PPID; exit 7")).stopped, StopReason::none)
        << "an ignored signal, as with nohup";
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        std::signal(signal, SIG_DFL);
    std::signal(SIGPIPE, ignored);

    EXPECT_EQ(run_child({.program = "/dev/null/none"}).error, ENOTDIR);
    EXPECT_EQ(run_child({.program = "there-is-no-such-program"}).error, ENOENT);
}

TEST(Child, GetsOnlyWhatItIsGiven)
{
    const Descriptor one(memfd_create("one", 0));
    const Descriptor two(memfd_create("two", 0));
    ASSERT_TRUE(write_at(one, 0, "1") && write_at(two, 0, "2"));
    const std::string file = "/proc/self/fd/";
    Child child =
        shell("cat " + file + std::to_string(one.get()) + " " + file + "9; echo \"${HOME-none}$A\"; " +
              "test ! -e " + file + std::to_string(two.get()) + " && head -c 100000 /dev/zero");
    child.files = {{one.get(), two.get()}, {9, one.get()}};
    child.environment.erase("HOME");
    child.environment["A"] = "=b";
    std::string output;
    child.output = STDOUT_FILENO;
    child.on_output = [&output](std::string_view text) { output += text; };
    EXPECT_EQ(run_child(child).status, 0);
    const size_t zeros = output.find('\0');
    EXPECT_EQ(output.size() - zeros, 100'000U);
    EXPECT_EQ(output.substr(0, zeros), "21none=b\n");
}

TEST(Files, AreReplacedWhole)
{
    const TempDir root;
    const fs::path file = root.path / "a/b/file";
    replace_file(file, "one");
    write_file(file.string() + ".new", "left behind by a process that was killed");
    replace_file(file, std::string(200'000, 'x'));
    EXPECT_EQ(read_file(file, 200'000), std::string(200'000, 'x'));
    EXPECT_THROW(read_file(file, 199'999), HostError);
    EXPECT_FALSE(fs::exists(file.string() + ".new"));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
    EXPECT_EQ(fs::status(root.path / "a").permissions(), fs::perms(0700));

    create_file_durably(root.path / "new", "content");
    EXPECT_THROW(create_file_durably(root.path / "new", "other"), HostError);
    EXPECT_EQ(read_file(root.path / "new", 100), "content");
    EXPECT_FALSE(fs::exists(root.path / "new.new"));
    EXPECT_THROW(replace_file(file / "below", ""), PlatformError);
}

TEST(Files, ThatAreNotRegularAreRefusedAtOnce)
{
    const TempDir root;
    ASSERT_EQ(mkfifo((root.path / "fifo").c_str(), 0600), 0);
    for (const fs::path &file : {root.path / "fifo", root.path, fs::path("/dev/zero"), root.path / "none"}) {
        EXPECT_THROW(open_file(file, O_RDWR), PlatformError);
        EXPECT_THROW(read_file(file, 100), HostError);
        EXPECT_THROW(open_file(file, O_WRONLY | O_APPEND), PlatformError);
    }
    EXPECT_THROW(FileLock(root.path / "fifo").acquire(), PlatformError);
}

} // namespace
