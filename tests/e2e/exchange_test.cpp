// ime-backupctl, the service and a SCIM daemon under disturbances: signals, kills, a bus, concurrent
// processes. The transcripts cover everything that a shell session can show.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files.h"
#include "host.h"
#include "ime_backup_settings.h"
#include "orvanta_cloud_operations.h"
#include "report.h"
#include "shared_names.h"

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

static constexpr int EXIT_TIMED_OUT = 124;

namespace
{

/// Waits until `condition` holds. Returns false after a time limit.
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

    std::string settings() const { return ctl({"settings"}).output; }

    void set(const std::string &name, const std::string &value) const
    {
        const Outcome outcome = ctl({"settings", "set", name, value});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
    }

    size_t count_backups() const
    {
        const std::string list = ctl({"list"}).output;
        EXPECT_EQ(list.find("damaged"), std::string::npos) << list;
        const auto lines = std::count(list.begin(), list.end(), '\n');
        return static_cast<size_t>(std::max<std::ptrdiff_t>(lines - 1, 0)); // one is the heading
    }

    using Disturb = std::function<void(Process &ctl, int round)>;

    void make_two_backups();
    void disturb_exchanges(int rounds, const Disturb &disturb);
    void expect_truth(const Outcome &outcome, size_t restored, const std::string &before,
                      size_t backups_before) const;

    const TempDir root;
    const fs::path state = root.path / "state";
    const std::map<std::string, std::string> environment = {
        {"IME_BACKUP_HOST_DIR", state},
        {"HOME", root.path},
        {"SCIM_HOME", root.path},
        {"SCIM_SOCKET_ADDRESS", "local:" + (root.path / "scim.socket").string()},
    };
    std::unique_ptr<Process> scim;
    std::string device[3]; ///< the settings that backups 1 and 2 hold
};

/// Stores a backup of each of two devices that have no setting in common.
void Workstation::make_two_backups()
{
    set("downloaded_lang", "en_US,fr_FR,ko_KR");
    set("downloaded_with_handwriting_lang", "fr_FR,ko_KR");
    for (size_t number = 1; number <= 2; number++) {
        bool on = number == 1;
        for (const SettingRow &row : SETTINGS) {
            on = !on;
            set(row.member, row.form == SettingForm::identifier  ? "kbd-" + std::to_string(number)
                            : row.form == SettingForm::languages ? (number == 1 ? "en_US,ko_KR" : "fr_FR")
                            : on                                 ? "on"
                                                                 : "off");
        }
        device[number] = settings();
        ASSERT_EQ(ctl({"backup"}).status, 0);
    }
}

/// Runs backups and restores, and disturbs each at a later moment than the previous one.
void Workstation::disturb_exchanges(int rounds, const Disturb &disturb)
{
    make_two_backups();
    const auto now = [] { return std::chrono::steady_clock::now(); };
    const auto begin = now();
    ASSERT_EQ(ctl({"restore"}).status, 0);
    const auto duration = std::chrono::duration_cast<std::chrono::microseconds>(now() - begin);

    for (int round = 0; round < rounds && !HasFailure(); round++) {
        SCOPED_TRACE("round " + std::to_string(round));
        const int number = round % 3; // 0 makes a backup, 1 and 2 restore that backup
        // SCIM's daemon loses all settings if it is killed during a write.
        if (settings().find("(not set)") != std::string::npos) {
            ASSERT_EQ(ctl({"restore", "1"}).status, 0);
        }
        const std::string before = settings();
        const size_t count = count_backups();
        Process process(number == 0 ? Arguments{CTL, "backup"}
                                    : Arguments{CTL, "restore", std::to_string(number)},
                        environment);
        // Nothing is disturbed in the first third, in which the two processes start.
        usleep(static_cast<useconds_t>(duration.count()) * static_cast<useconds_t>(rounds + 2 * round) /
               static_cast<useconds_t>(3 * rounds));
        disturb(process, round);
        expect_truth(process.wait(), static_cast<size_t>(number), before, count);
    }
}

/// Checks that ime-backupctl reports what happened.
void Workstation::expect_truth(const Outcome &outcome, size_t restored, const std::string &before,
                               size_t backups_before) const
{
    const auto says = [&](const char *text) { return outcome.errors.find(text) != std::string::npos; };
    const std::string after = settings();
    const size_t stored = count_backups() - backups_before;
    const testing::ScopedTrace trace(__FILE__, __LINE__,
                                     outcome.output + outcome.errors + "exit status " +
                                         std::to_string(outcome.status));
    EXPECT_EQ(outcome.status == 130, says("interrupted"));
    EXPECT_EQ(outcome.output.find("(not set)"), std::string::npos) << "all settings were set";
    if (restored == 0) {
        EXPECT_EQ(after, before);
    }
    // A killed service may have stored the backup.
    if (restored != 0 || !says("shows whether")) {
        EXPECT_EQ(stored, restored == 0 && outcome.status == 0 ? 1U : 0U);
    }
    if (restored != 0 && outcome.status == 0) {
        EXPECT_EQ(after, device[restored]);
    }
    if (ctl({"status"}).output.find("was interrupted") != std::string::npos) {
        EXPECT_EQ(ctl({"undo"}).status, 0);
        EXPECT_EQ(settings(), before);
    }
    if (stored != 0) {
        EXPECT_EQ(ctl({"restore"}).status, 0);
        EXPECT_EQ(settings(), before) << "the backup holds them";
    }
    if (outcome.status == -1 || says("nothing on the device")) { // -1: killed before the service started
        EXPECT_EQ(after, before);
    }
    if (says("settings of the device had been changed")) {
        EXPECT_NE(after, before);
    }
}

TEST_F(Workstation, ReportsOfAnInterruptedExchangeAreTrue)
{
    disturb_exchanges(42, [](Process &process, int round) {
        process.send(round % 2 == 0 ? SIGINT : SIGTERM);
        if (round % 4 == 0) // a second signal, as from an impatient user
            process.send(SIGINT);
    });
}

/// Returns the process of the service that ime-backupctl has started, or 0.
static pid_t service_of(const Process &process)
{
    const std::string pid = std::to_string(process.pid());
    const std::string child = read_file("/proc/" + pid + "/task/" + pid + "/children");
    // Another name: the service has not started yet, or the child is a sanitizer's.
    return !child.empty() &&
                   read_file("/proc/" + std::to_string(std::stoi(child)) + "/comm") == "ime-backup-serv\n"
               ? std::stoi(child)
               : 0;
}

TEST_F(Workstation, TheServiceEndsWithItsClient)
{
    scim->send(SIGSTOP);
    auto impatient = environment;
    impatient["SCIM_SOCKET_TIMEOUT"] = "300";
    // The service ends at the latest when it stops waiting for the daemon.
    for (int i = 0; i < 3; i++) {
        Process process({CTL, "backup"}, impatient);
        pid_t service = 0;
        ASSERT_TRUE(eventually([&] { return (service = service_of(process)) != 0; }));
        usleep(static_cast<useconds_t>(i) * 4000);
        process.send(SIGKILL);
        process.wait();
        // A zombie is fine: the process that adopts it may not reap it.
        const fs::path left = "/proc/" + std::to_string(service) + "/status";
        EXPECT_TRUE(eventually(
            [&] { return !fs::exists(left) || read_file(left).find("State:\tZ") != std::string::npos; }));
    }
    scim->send(SIGCONT);
}

TEST_F(Workstation, ReportsOfAKilledServiceAreTrue)
{
    disturb_exchanges(42, [](Process &process, int) {
        if (const pid_t service = service_of(process); service != 0)
            kill(service, SIGKILL);
    });
    // At most one temporary file of each kind is left behind.
    std::set<std::string> kinds;
    for (const auto &entry : fs::recursive_directory_iterator(state))
        if (entry.path().extension() == ".new") {
            EXPECT_TRUE(kinds.insert(entry.path().filename().string().substr(0, 6)).second) << entry;
        }
}

TEST_F(Workstation, ReportsWithoutADaemonAreTrue)
{
    disturb_exchanges(42, [this](Process &, int round) {
        const bool is_stopped = round % 4 < 2;
        const bool is_lost = round % 4 != 0;
        if (is_stopped) {
            scim->send(SIGSTOP);
            usleep(20'000);
        }
        if (is_lost) {
            scim->send(SIGKILL);
            scim->wait();
            fs::remove(root.path / "scim.socket");
            start_scim();
        }
        scim->send(SIGCONT);
    });
}

TEST_F(Workstation, AFinishedRestoreIsReportedDespiteASignal)
{
    make_two_backups();
    // A slow reader.
    const fs::path pipe = root.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const Descriptor reader(open(pipe.c_str(), O_RDWR | O_NONBLOCK));
    while (write(reader.get(), "\n", 1) == 1) {
    }
    Process process({"sh", "-c", "exec " CTL " restore 1 >" + pipe.string()}, environment);
    ASSERT_TRUE(eventually([this] { return settings() == device[1]; }));
    usleep(100'000);
    process.send(SIGINT);
    std::string output;
    ASSERT_TRUE(eventually([&] {
        char text[4096];
        for (ssize_t count = 0; (count = read(reader.get(), text, sizeof text)) > 0;)
            output.append(text, static_cast<size_t>(count));
        return output.ends_with("backup 1  restored\n");
    }));
    EXPECT_EQ(process.wait().status, 0);
}

/// Returns the calls in a trace, such as "vconf_get_bool#2".
std::vector<std::string> find_calls(const std::string &trace)
{
    static const std::regex call("(^|\n) *([a-z_:A-Z]+)\\(");
    std::map<std::string, int> counts;
    std::vector<std::string> calls;
    for (std::sregex_iterator i(trace.begin(), trace.end(), call); i != std::sregex_iterator(); i++)
        if ((*i)[2] != "scim::ConfigModule::ConfigModule") // which can't be made to fail
            calls.push_back((*i)[2].str() + "#" + std::to_string(++counts[(*i)[2]]));
    return calls;
}

/// True for calls after whose failure the service waits for another request, by contract.
bool waits_after_failed(const std::string &call)
{
    static const std::regex waiting(
        "(orvanta_cloud_initialize|app_control_(get_operation|create)|service_app_exit)#.*");
    return std::regex_match(call, waiting);
}

class FailingCalls : public Workstation, public testing::WithParamInterface<Arguments>
{
};

TEST_P(FailingCalls, AreReportedTruly)
{
    make_two_backups();
    Arguments command = GetParam();
    command.insert(command.begin(), "trace");
    const auto restored = static_cast<size_t>(command[1] == "restore" ? 1 : 0);
    const std::vector<std::string> calls = find_calls(ctl(command).output);
    ASSERT_GT(calls.size(), 15U);
    for (size_t i = 0; i < calls.size(); i += EACH_CALL) {
        const std::string &call = calls[i];
        SCOPED_TRACE(call);
        if (settings() != device[2]) {
            ASSERT_EQ(ctl({"restore", "2"}).status, 0);
        }
        const size_t count = count_backups();
        Arguments failing = command;
        failing.insert(failing.end(), {"--fail", call, "--timeout", waits_after_failed(call) ? "0.3" : "20"});
        const Outcome outcome = ctl(failing);
        EXPECT_NE(outcome.output.find("made to fail"), std::string::npos);
        EXPECT_TRUE(outcome.status != EXIT_TIMED_OUT || waits_after_failed(call));
        if (command[1] == "info") {
            EXPECT_EQ(outcome.status == 0, outcome.errors.starts_with("record 0  20")) << outcome.errors;
            EXPECT_EQ(count_backups(), count);
            EXPECT_EQ(settings(), device[2]);
        } else {
            expect_truth(outcome, restored, device[2], count);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EachExchange, FailingCalls,
                         testing::Values(Arguments{"backup"}, Arguments{"restore", "1"}, Arguments{"info"}),
                         [](const auto &exchange) { return exchange.param.front(); });

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
    set("default_keyboard", "kbd");
    Process first({SERVICE_PROGRAM}, with_bus());
    ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));

    EXPECT_EQ(Process({SERVICE_PROGRAM, "unknown"}, with_bus()).wait().status, 0);
    EXPECT_TRUE(first.is_running()) << "an unknown operation does not end the service";
    EXPECT_EQ(ctl({"backup"}, with_bus()).status, 0) << "ime-backupctl does not use the bus";
    EXPECT_TRUE(first.is_running());
    {
        FileLock others_turn(state / EXCHANGE_LOCK);
        others_turn.acquire();
        for (int i = 0; i < 2; i++)
            EXPECT_EQ(Process({SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus()).wait().status, 0);
        EXPECT_EQ(count_backups(), 1U);
    }
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(count_backups(), 3U);
}

TEST_F(OnABus, LaunchesAtOnceAreAllServed)
{
    set("default_keyboard", "kbd");
    std::vector<std::unique_ptr<Process>> launches;
    for (int i = 0; i < 20; i++)
        launches.push_back(
            std::make_unique<Process>(Arguments{SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus()));
    for (const auto &launch : launches) {
        const Outcome outcome = launch->wait();
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
    }
    EXPECT_EQ(count_backups(), launches.size());
}

TEST_F(OnABus, ASignalEndsTheServiceInOrder)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        Process service({SERVICE_PROGRAM}, with_bus());
        ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));
        service.send(signal);
        EXPECT_EQ(service.wait().status, 0);
    }

    // On SIGTERM, a service that waits for another exchange reports that its own exchange failed.
    FileLock others_turn(state / EXCHANGE_LOCK);
    others_turn.acquire();
    Process service({SERVICE_PROGRAM, OPERATION_BACKUP}, with_bus());
    ASSERT_TRUE(eventually([this] { return service_is_on_bus(); }));
    service.send(SIGTERM);
    const Outcome outcome = service.wait();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.errors.find("backup failed: the service ended before"), std::string::npos)
        << outcome.errors;
}

} // namespace
