// ime-backupctl and the service, with a SCIM daemon of their own.

#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <set>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "exchange_report.h"
#include "file_lock.h"
#include "host.h"
#include "ime_backup_operations.h"

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

namespace
{

/// Tries `condition` until it holds; false when it never does.
template <class Condition>
bool eventually(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(10'000);
    }
    return true;
}

class Workstation : public testing::Test
{
protected:
    void SetUp() override { start_scim(); }

    void TearDown() override
    {
        const std::string log = read_file(state / "service.log");
        EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << log;
    }

    void start_scim()
    {
        scim = std::make_unique<Process>(
            Arguments{SCIM_LAUNCHER, "-c", "simple", "-e", "none", "-f", "socket"}, environment);
        ASSERT_TRUE(eventually([this] {
            for (const auto &entry : fs::directory_iterator(root.path))
                if (entry.is_socket())
                    return ctl({"settings"}).status == 0;
            return false;
        })) << "the SCIM daemon does not start";
    }

    Outcome ctl(Arguments arguments, std::map<std::string, std::string> extra = {}) const
    {
        extra.insert(environment.begin(), environment.end());
        arguments.insert(arguments.begin(), CTL);
        return Process(arguments, extra).wait();
    }

    /// Starts the service without ime-backupctl, and without a bus.
    std::unique_ptr<Process> start_by_hand(const std::string &operation) const
    {
        auto variables = environment;
        variables["DBUS_SESSION_BUS_ADDRESS"] = "disabled:";
        return std::make_unique<Process>(Arguments{SERVICE_PROGRAM, operation}, variables);
    }

    std::string settings() const { return ctl({"settings"}).output; }

    void set(const std::vector<std::pair<std::string, std::string>> &values) const
    {
        for (const auto &[name, value] : values) {
            const Outcome outcome = ctl({"settings", "set", name, value});
            EXPECT_EQ(outcome.status, 0) << outcome.errors;
        }
    }

    void seed() const
    {
        set({{"default_keyboard", "0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0"},
             {"selected_lang", "en_US,ko_KR"},
             {"downloaded_lang", "en_US,fr_FR,ko_KR"},
             {"downloaded_with_handwriting_lang", "ko_KR"},
             {"handwriting", "true"},
             {"prediction", "false"},
             {"auto_space", "true"},
             {"auto_capitalize", "false"},
             {"auto_punctuation", "false"},
             {"key_tap_sound", "true"},
             {"key_tap_vib", "false"}});
    }

    void change_everything() const
    {
        set({{"default_keyboard", "another-keyboard"},
             {"selected_lang", "fr_FR"},
             {"handwriting", "off"},
             {"prediction", "on"},
             {"auto_space", "0"},
             {"auto_capitalize", "1"},
             {"auto_punctuation", "yes"},
             {"key_tap_sound", "no"},
             {"key_tap_vib", "true"}});
    }

    fs::path backup_file(int number) const
    {
        return state / ("cloud/backup-00000" + std::to_string(number) + ".json");
    }

    const TempDir root;
    const fs::path state = root.path / "state";
    const std::map<std::string, std::string> environment = {
        {"IME_BACKUP_HOST_DIR", state},
        {"HOME", root.path},
        {"SCIM_HOME", root.path},
        {"SCIM_SOCKET_ADDRESS", "local:" + (root.path / "scim.socket").string()},
    };
    std::unique_ptr<Process> scim;
};

TEST_F(Workstation, BringsBackWhatWasBackedUp)
{
    seed();
    const std::string before = settings();
    const Outcome backup = ctl({"backup"});
    ASSERT_EQ(backup.status, 0) << backup.errors;
    EXPECT_TRUE(backup.output.starts_with("backup 1  20")) << backup.output;
    EXPECT_EQ(ctl({"list"}).output, backup.output);
    EXPECT_EQ(ctl({"show"}).output,
              R"({"default_keyboard":"0f1e2d3c-4b5a-69c8-87d6-a5b4c3d2e1f0",)"
              R"("selected_lang":[{"lang_id":"en_US"},{"lang_id":"ko_KR"}],"handwriting":true,)"
              R"("prediction":false,"auto_space":true,"auto_capitalize":false,"auto_punctuation":false,)"
              R"("key_tap_sound":true,"key_tap_vib":false})"
              "\n");

    change_everything();
    ASSERT_EQ(ctl({"backup"}).status, 0);
    scim.reset(); // the values outlive the daemon
    start_scim();
    const Outcome restore = ctl({"restore", "1"});
    EXPECT_EQ(restore.status, 0) << restore.errors;
    EXPECT_EQ(restore.output, "record 0  restored\nbackup 1  restored\n");
    EXPECT_EQ(settings(), before);

    ASSERT_EQ(ctl({"restore"}).status, 0) << "the newest";
    EXPECT_NE(settings().find("another-keyboard"), std::string::npos);
    EXPECT_TRUE(ctl({"info"}).output.starts_with("record 0  20"));
    EXPECT_NE(ctl({"-v", "info"}).errors.find("__backup_get_keys_dates_cb"), std::string::npos);
}

TEST_F(Workstation, RestoresTheRecordsThatItCan)
{
    seed();
    const std::string snapshot = R"({"default_keyboard":"kbd9","selected_lang":[],"prediction":true})";
    write_file(backup_file(1), encode_record_file({{"a", "1", snapshot},
                                                   {"b", "2", "no JSON"},
                                                   {"c", "3", std::nullopt},
                                                   {"d", "4", R"({"default_keyboard":"kbd10"})"}}));
    const Outcome restore = ctl({"restore"});
    EXPECT_EQ(restore.status, 1);
    EXPECT_EQ(restore.output, "record 0  restored\nrecord b  failed\nrecord c  failed\nrecord 3  restored\n");
    EXPECT_NE(restore.errors.find(R"(not restored: record "b", "c")"), std::string::npos) << restore.errors;
    EXPECT_NE(settings().find("kbd10"), std::string::npos);
}

TEST_F(Workstation, RefusesDamagedBackupsAndChangesNothing)
{
    seed();
    ASSERT_EQ(ctl({"backup"}).status, 0);
    const std::string whole = read_file(backup_file(1));
    change_everything();
    const std::string before = settings();

    std::string changed = whole;
    changed[whole.find("key_tap_vib")] = 'K';
    std::string later = whole;
    later[whole.find("\"version\":") + 10] = '9';
    const struct {
        std::string content;
        const char *reason;
    } cases[] = {
        {whole.substr(0, whole.size() - 20), "damaged or cut short"},
        {changed, "changed since it was written"},
        {later, "later version"},
        {std::string(MAX_RECORD_FILE_SIZE + 1, ' '), "larger than any record file"},
        {"", "no record file"},
    };
    for (const auto &test : cases) {
        write_file(backup_file(1), test.content);
        const Outcome restore = ctl({"restore"});
        EXPECT_EQ(restore.status, 1);
        EXPECT_NE(restore.errors.find(test.reason), std::string::npos) << restore.errors;
        EXPECT_NE(ctl({"list"}).output.find(test.reason), std::string::npos);
        EXPECT_EQ(settings(), before);
    }
}

TEST_F(Workstation, SaysWhatIsWrong)
{
    const struct {
        Arguments arguments;
        int status;
        const char *message;
    } cases[] = {
        {{}, 2, "Usage:"},
        {{"backdown"}, 2, "backdown"},
        {{"--timeout", "0", "backup"}, 2, "--timeout"},
        {{"settings", "set", "handwriting", "perhaps"}, 2, "neither true nor false"},
        {{"--timeout", "nan", "backup"}, 2, "--timeout"},
        {{"--service", "", "backup"}, 2, "--service"},
        {{"restore", ""}, 2, "ID"},
        {{"settings", "set", "default_keyboard", ""}, 2, "can't be a keyboard's identifier"},
        {{"settings", "set", "default_keyboard", "a\nb"}, 2, "can't be a keyboard's identifier"},
        {{"settings", "set", "handwritin", "true"}, 2, "there is no setting"},
        {{"backup"}, 3, "no input method is active"},
        {{"restore"}, 1, "no backup yet"},
        {{"restore", "7"}, 1, "no backup yet"},
        {{"--service", "/nonexistent", "info"}, 3, "can't start the service"},
    };
    for (const auto &test : cases) {
        const Outcome outcome = ctl(test.arguments);
        EXPECT_EQ(outcome.status, test.status) << test.message;
        EXPECT_NE(outcome.errors.find(test.message), std::string::npos) << outcome.errors;
    }
    EXPECT_EQ(read_file(state / "service.log"), "") << "the service was launched";
    const Outcome full = Process({"sh", "-c", CTL " settings > /dev/full"}, environment).wait();
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.errors.find("standard output"), std::string::npos) << full.errors;
    EXPECT_EQ(ctl({"--help"}).status, 0);
    EXPECT_EQ(ctl({"restore", "--help"}).status, 0);
}

TEST_F(Workstation, KeepsItsStateWhereItIsTold)
{
    const fs::path store = root.path / "a store";
    seed();
    EXPECT_EQ(ctl({"backup"}, {{"IME_BACKUP_CLOUD_STORE", store}}).status, 0);
    EXPECT_EQ(
        ctl({"list"}, {{"IME_BACKUP_CLOUD_STORE", "file://" + (root.path / "a%20store").string()}}).output,
        ctl({"list"}, {{"IME_BACKUP_CLOUD_STORE", store}}).output);
    EXPECT_TRUE(fs::exists(store / "backup-000001.json"));
    EXPECT_EQ(ctl({"list"}).output, "");

    EXPECT_EQ(ctl({"info"}, {{"IME_BACKUP_HOST_DIR", ""}, {"XDG_STATE_HOME", root.path / "xdg"}}).status, 0);
    EXPECT_TRUE(fs::exists(root.path / "xdg/ime-backup" / EXCHANGE_LOCK));
    EXPECT_EQ(ctl({"info"}, {{"IME_BACKUP_HOST_DIR", ""}}).status, 0);
    EXPECT_TRUE(fs::exists(root.path / ".local/state/ime-backup" / EXCHANGE_LOCK));
}

TEST_F(Workstation, NeedsItsPlatform)
{
    seed();
    ASSERT_EQ(ctl({"backup"}).status, 0);

    write_file(root.path / "file", "");
    const fs::path blocked = root.path / "file/state";
    const fs::path broken = root.path / "broken";
    const std::string garbage(4096, 'x');
    write_file(broken / "settings.db", garbage);
    for (const Arguments &arguments :
         {Arguments{"backup"}, Arguments{"settings"}, Arguments{"settings", "set", "prediction", "on"}}) {
        Outcome outcome = ctl(arguments, {{"IME_BACKUP_HOST_DIR", blocked}});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_NE(outcome.errors.find(blocked), std::string::npos) << outcome.errors;
        outcome = ctl(arguments, {{"IME_BACKUP_HOST_DIR", broken}});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_NE(outcome.errors.find(broken / "settings.db"), std::string::npos) << outcome.errors;
    }
    for (const char *command : {"info", "restore", "list", "show"})
        EXPECT_EQ(ctl({command}, {{"IME_BACKUP_HOST_DIR", blocked}}).status, 3) << command;
    EXPECT_EQ(read_file(broken / "settings.db"), garbage);

    scim.reset();
    for (const char *command : {"backup", "restore", "settings"}) {
        const Outcome outcome = ctl({command});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_NE(outcome.errors.find("scim-launcher -d -c simple -e none -f socket"), std::string::npos);
    }
    // Nor does a service that is started by hand make settings up.
    const Outcome outcome = start_by_hand(OPERATION_BACKUP)->wait();
    EXPECT_NE(outcome.errors.find("Failed to create Config instance"), std::string::npos) << outcome.errors;
    EXPECT_EQ(ctl({"list"}).output.find("backup 2"), std::string::npos);
}

TEST_F(Workstation, ABrokenStoreIsReportedOnceByTheLibrary)
{
    seed();
    write_file(state / "settings.db", std::string(4096, 'x'));
    fs::remove(state / "settings.db-wal");
    const std::string errors = start_by_hand(OPERATION_BACKUP)->wait().errors;
    const size_t first = errors.find("libvconf: ");
    EXPECT_NE(first, std::string::npos) << errors;
    EXPECT_EQ(errors.find("libvconf: ", first + 1), std::string::npos) << errors;
}

TEST_F(Workstation, BackupsAtOnceAreAllMade)
{
    seed();
    std::vector<std::unique_ptr<Process>> backups;
    for (int i = 0; i < 5; i++)
        backups.push_back(std::make_unique<Process>(Arguments{CTL, "backup"}, environment));
    std::set<std::string> numbers;
    for (const auto &backup : backups) {
        const Outcome outcome = backup->wait();
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        numbers.insert(outcome.output.substr(0, strlen("backup 1")));
    }
    EXPECT_EQ(numbers.size(), backups.size());
}

TEST_F(Workstation, AKilledBackupIsNoBackup)
{
    seed();
    const auto now = [] { return std::chrono::steady_clock::now(); };
    const auto begin = now();
    start_by_hand(OPERATION_BACKUP)->wait();
    const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(now() - begin);

    constexpr int rounds = 30;
    for (int round = 0; round < rounds; round++) {
        const auto service = start_by_hand(OPERATION_BACKUP);
        usleep(static_cast<useconds_t>(duration.count() * round / rounds));
        service->send(SIGKILL);
        service->wait();
        const std::string backups = ctl({"list"}).output;
        EXPECT_EQ(backups.find("unusable"), std::string::npos) << backups;
    }
    EXPECT_EQ(ctl({"backup"}).status, 0);
}

TEST_F(Workstation, AFullDiskFailsTheBackup)
{
    seed();
    ASSERT_EQ(ctl({"backup"}).status, 0);
    std::string languages;
    for (int i = 0; i < 5000; i++)
        languages += "xx_" + std::to_string(i) + ",";
    set({{"selected_lang", languages}});

    // A file that may not grow stands for a disk that is full.
    const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old_limit{};
    getrlimit(RLIMIT_FSIZE, &old_limit);
    const rlimit limit = {100'000, old_limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    const Outcome outcome = ctl({"backup"});
    setrlimit(RLIMIT_FSIZE, &old_limit);
    std::signal(SIGXFSZ, old_handler);

    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find("can't write"), std::string::npos) << outcome.errors;
    EXPECT_EQ(ctl({"backup"}).output.substr(0, 8), "backup 2");
}

TEST_F(Workstation, NoServiceIsLeftWaiting)
{
    // A service that never finishes, and does not mind being asked to.
    const fs::path stubborn = root.path / "stubborn";
    const fs::path pid_file = root.path / "pid";
    write_file(stubborn, "#!/bin/sh\ntrap '' TERM\necho $$ > " + pid_file.string() +
                             "\nwhile :; do sleep 0.05; done\n");
    fs::permissions(stubborn, fs::perms::owner_all);
    const auto is_gone = [&] {
        const std::string status =
            read_file("/proc/" + std::to_string(std::stoi(read_file(pid_file))) + "/stat");
        return status.empty() || status.find(") Z ") != std::string::npos;
    };

    const Outcome outcome = ctl({"--timeout", "0.3", "--service", stubborn, "info"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.errors.find("did not finish in time"), std::string::npos) << outcome.errors;
    EXPECT_TRUE(is_gone());

    // The real one, which an unknown operation leaves waiting: it goes when its launcher is killed.
    const fs::path waiting = root.path / "waiting";
    write_file(waiting, "#!/bin/sh\necho $$ > " + pid_file.string() + "\nexec " SERVICE_PROGRAM " unknown\n");
    fs::permissions(waiting, fs::perms::owner_all);
    fs::remove(pid_file);
    Process launcher({CTL, "--service", waiting, "info"}, environment);
    ASSERT_TRUE(eventually([&] { return !read_file(pid_file).empty(); }));
    launcher.send(SIGKILL);
    launcher.wait();
    EXPECT_TRUE(eventually(is_gone));
}

class OnABus : public Workstation
{
protected:
    OnABus() : bus(g_test_dbus_new(G_TEST_DBUS_NONE)) { g_test_dbus_up(bus); }
    ~OnABus() override
    {
        g_test_dbus_down(bus);
        g_object_unref(bus);
    }

    std::map<std::string, std::string> with_bus() const
    {
        auto variables = environment;
        variables["DBUS_SESSION_BUS_ADDRESS"] = g_test_dbus_get_bus_address(bus);
        return variables;
    }

    bool service_is_on_bus() const
    {
        return Process({"gdbus", "call", "--session", "--dest", "org.freedesktop.DBus", "--object-path", "/",
                        "--method", "org.freedesktop.DBus.GetNameOwner", "com.orvanta.ime-backup-service"},
                       with_bus())
                   .wait()
                   .status == 0;
    }

    GTestDBus *bus;
};

TEST_F(OnABus, ASecondLaunchIsARequestToTheFirst)
{
    seed();
    Process first({SERVICE_PROGRAM}, with_bus());
    ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));

    EXPECT_EQ(Process({SERVICE_PROGRAM, "unknown"}, with_bus()).wait().status, 0);
    EXPECT_TRUE(first.is_running()) << "nothing runs for an unknown operation";
    EXPECT_EQ(ctl({"backup"}, with_bus()).status, 0) << "which does not go through the bus";
    EXPECT_TRUE(first.is_running());

    EXPECT_EQ(Process({SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus()).wait().status, 0);
    const Outcome outcome = first.wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.errors.find("_backup_record_cb"), std::string::npos) << outcome.errors;
    EXPECT_NE(ctl({"list"}).output.find("backup 2"), std::string::npos);
}

TEST_F(OnABus, RequestsAtOnceAreAllServed)
{
    seed();
    Process first({SERVICE_PROGRAM}, with_bus());
    ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));
    {
        FileLock others_turn(state / EXCHANGE_LOCK);
        others_turn.acquire();
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(Process({SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus()).wait().status, 0);
    }
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_NE(ctl({"list"}).output.find("backup 2"), std::string::npos);
}

TEST_F(OnABus, ASignalEndsTheServiceInOrder)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        Process service({SERVICE_PROGRAM}, with_bus());
        ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));
        service.send(signal);
        EXPECT_EQ(service.wait().status, 0);
    }

    // Closed in order, the library tells of the exchange that it gives up: one that waits for its turn.
    FileLock others_turn(state / EXCHANGE_LOCK);
    others_turn.acquire();
    Process service({SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus());
    ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));
    service.send(SIGTERM);
    EXPECT_EQ(service.wait().status, 0);
    EXPECT_NE(read_file(state / LAST_REPORT).find("ended before"), std::string::npos);
}

} // namespace
