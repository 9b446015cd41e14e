// The configuration and the active input method, with a daemon that misbehaves on demand.

#include <climits>
#include <csignal>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "account.h"
#include "daemon.h"
#include "device.h"
#include "host.h"
#include "isf_control.h"

namespace
{

enum class Fault { none, refuse, stall, die };

/// A process that stands in for SCIM's daemon: it keeps values, and answers one question after another.
class FakeDaemon
{
public:
    /// @param at_question the question that fails, counted from 1; 0 is the greeting
    FakeDaemon(Fault the_fault, int at_question) : fault(the_fault), faulty_question(at_question)
    {
        setenv("SCIM_SOCKET_ADDRESS", ("local:" + (root.path / "socket").string()).c_str(), 1);
        setenv("SCIM_SOCKET_TIMEOUT", "600", 1);
        server.create(scim::SocketAddress("local:" + (root.path / "socket").string()));
        process = fork();
        if (process == 0) {
            server.signal_connect_receive(scim::slot(this, &FakeDaemon::on_question));
            server.run();
            _exit(0);
        }
    }
    ~FakeDaemon()
    {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        account().finish();
    }

private:
    void on_question(scim::SocketServer *, const scim::Socket &client)
    {
        if (!greeted) {
            if (fault == Fault::stall && faulty_question == 0)
                pause();
            scim::uint32 key = 0;
            greeted =
                !scim::scim_socket_accept_connection(key, "SocketFrontEnd", "SocketConfig", client, 1000)
                     .empty();
            return;
        }
        scim::Transaction question;
        if (!question.read_from_socket(client, 1000))
            _exit(0);
        const bool goes_wrong = ++asked == faulty_question;
        if (goes_wrong && fault == Fault::die)
            _exit(0);
        if (goes_wrong && fault == Fault::stall)
            pause();
        scim::Transaction reply;
        reply.put_command(scim::SCIM_TRANS_CMD_REPLY);
        if ((goes_wrong && fault == Fault::refuse) || !answer(question, reply))
            reply.put_command(scim::SCIM_TRANS_CMD_FAIL);
        else
            reply.put_command(scim::SCIM_TRANS_CMD_OK);
        reply.write_to_socket(client);
    }

    bool answer(scim::Transaction &question, scim::Transaction &reply)
    {
        int command = 0;
        scim::uint32 number = 0;
        scim::String key;
        scim::String text;
        question.get_command(command);
        question.get_data(number);
        question.get_command(command);
        question.get_data(key);
        switch (command) {
        case scim::SCIM_TRANS_CMD_GET_CONFIG_STRING:
            if (values[key].empty())
                return false;
            reply.put_data(values[key]);
            return true;
        case scim::SCIM_TRANS_CMD_GET_CONFIG_BOOL:
            if (values[key] != "true" && values[key] != "false")
                return false;
            [[fallthrough]];
        case scim::SCIM_TRANS_CMD_GET_CONFIG_INT:
            text = values[key];
            if (!text.empty())
                reply.put_data(static_cast<scim::uint32>(text == "true" ? 1 : atoi(text.c_str())));
            return !text.empty();
        case scim::SCIM_TRANS_CMD_SET_CONFIG_STRING:
            return question.get_data(values[key]);
        case scim::SCIM_TRANS_CMD_SET_CONFIG_INT:
            question.get_data(number);
            values[key] = std::to_string(static_cast<int>(number));
            return true;
        case scim::SCIM_TRANS_CMD_SET_CONFIG_BOOL:
            question.get_data(number);
            values[key] = number != 0 ? "true" : "false";
            return true;
        case scim::SCIM_TRANS_CMD_ERASE_CONFIG:
            return values.erase(key) != 0;
        default:
            return true;
        }
    }

    const Fault fault;
    const int faulty_question;
    const TempDir root;
    scim::SocketServer server;
    std::map<scim::String, scim::String> values = {{"number", "5"}, {"switch", "true"}, {"word", "maybe"}};
    bool greeted = false;
    int asked = 0;
    pid_t process = 0;
};

scim::ConfigPointer open_config()
{
    return scim::ConfigModule("socket").create_config();
}

std::string problems()
{
    std::string text;
    for (const Problem &problem : account().problems())
        text += problem.reason;
    return text;
}

std::string outcomes()
{
    std::string text;
    for (const Change &change : account().changes())
        text += change.key + (change.outcome == Change::Outcome::made      ? " made "
                              : change.outcome == Change::Outcome::refused ? " refused "
                                                                           : " pending ");
    return text;
}

TEST(Config, DistinguishesAMissingKeyFromALostDaemon)
{
    const struct {
        Fault fault;
        int question;
        int number;
        const char *problem;
    } cases[] = {
        {Fault::none, 0, 5, ""},
        {Fault::refuse, 2, 5, ""}, // like a key that is not set
        {Fault::die, 1, 42, "was lost"},
        {Fault::die, 2, 5, "was lost"},
        {Fault::stall, 1, 42, "does not answer"},
        {Fault::stall, 2, 5, "does not answer"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(std::string(test.problem) + std::to_string(test.question));
        const FakeDaemon daemon(test.fault, test.question);
        const scim::ConfigPointer config = open_config();
        ASSERT_FALSE(config.null());
        EXPECT_EQ(config->read("number", 42), test.number);
        EXPECT_EQ(config->read("missing", 42), 42);
        EXPECT_EQ(problems().empty(), *test.problem == '\0') << problems();
        EXPECT_NE(problems().find(test.problem), std::string::npos) << problems();
        if (*test.problem != '\0') {
            EXPECT_FALSE(config->write("number", 7)) << "a daemon that is lost stays lost";
            EXPECT_TRUE(open_config()->read("switch", false) == false);
        }
    }
    const FakeDaemon daemon(Fault::none, 0);
    EXPECT_EQ(open_config()->read("word", true), true);
    EXPECT_EQ(problems(), "");
}

TEST(Config, IsEmptyWithoutADaemon)
{
    {
        const FakeDaemon daemon(Fault::stall, 0);
        setenv("SCIM_SOCKET_TIMEOUT", "30", 1);
        for (int client = 0; client < 9; client++) { // more than the socket's queue holds
            EXPECT_TRUE(open_config().null());
            EXPECT_NE(problems().find("does not answer"), std::string::npos) << problems();
            account().finish();
        }
    }
    EXPECT_TRUE(open_config().null());
    EXPECT_NE(problems().find("isn't running"), std::string::npos) << problems();
    EXPECT_FALSE(scim::ConfigModule("other").valid());
    account().finish();
}

TEST(Config, AChangeIsMadeOnceItIsFlushed)
{
    const struct {
        Fault fault;
        int question; ///< 1 and 3 read the old value, 2 and 4 write, 5 flushes, 6 reloads
        const char *outcomes;
    } cases[] = {
        {Fault::none, 0, "number made switch made "},
        {Fault::refuse, 2, "number refused switch made "},
        {Fault::refuse, 5, "number refused switch refused "},
        {Fault::die, 2, "number pending "},
        {Fault::die, 3, "number pending "},
        {Fault::die, 5, "number pending switch pending "},
        {Fault::die, 6, "number made switch made "},
        {Fault::stall, 1, ""},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.question);
        const FakeDaemon daemon(test.fault, test.question);
        const scim::ConfigPointer config = open_config();
        config->write("number", 7);
        config->write("switch", false);
        EXPECT_EQ(outcomes().find("made"), std::string::npos) << "before it is flushed";
        config->flush();
        config->reload();
        EXPECT_EQ(outcomes(), test.outcomes);
        EXPECT_EQ(problems().empty(), test.fault == Fault::none) << problems();
    }
    const FakeDaemon daemon(Fault::none, 0);
    open_config()->write("switch", true);
    open_config()->write("number", 5);
    EXPECT_EQ(outcomes(), "") << "it held that already";
    open_config()->write("switch", false);
    EXPECT_EQ(outcomes(), "switch pending ") << "it was never flushed";
    EXPECT_EQ(account().changes().at(0).before, DeviceValue(true));
    open_config()->write("word", 0);
    EXPECT_EQ(account().changes().at(1).before, DeviceValue("maybe")) << "which reads as 0";
}

constexpr SettingRow ROW = {"", SettingPlace::configuration, SettingForm::integer_switch, "keyloom/row", ""};

TEST(Config, AValueThatWasReadCanBePutBack)
{
    const FakeDaemon daemon(Fault::none, 0);
    Device &device = *host_device();
    device.write(ROW, {}); // which the daemon refuses
    const auto expect_value = [&](const scim::String &text, const DeviceValue &value) {
        ScimDaemon::connect()->write(ROW.key, text);
        EXPECT_EQ(device.read_one(ROW), value) << text;
        ScimDaemon::connect()->write(ROW.key, scim::String("other"));
        device.write(ROW, value);
        EXPECT_EQ(ScimDaemon::connect()->read<scim::String>(ROW.key).value_or(""), text);
    };
    expect_value("-2147483648", INT_MIN);
    expect_value("true", true);
    expect_value("false", false);
    expect_value("", {});
    for (const char *text : {"007", "-0", "2147483648", "+7", "True", "7x", "abc = #", "a\tb", "\xff"})
        expect_value(text, text);
    for (const char *text : {"", " 7", "7\t", "a\nb"})
        EXPECT_THROW(device.write(ROW, text), ValueError) << text;
    for (const char *text : {"", " kbd"})
        EXPECT_THROW(device.write(SETTINGS[0], text), ValueError);
    device.write(SETTINGS[0], "7");
    EXPECT_EQ(device.read_one(SETTINGS[0]), DeviceValue("7")) << "an identifier";
    EXPECT_NE(device.refuses(SETTINGS[0], "a\tb"), "");
    device.write(SETTINGS[0], "a\tb"); // another program may have made it active
}

TEST(Config, AMissingKeyIsReadTogetherWithOtherKeys)
{
    const FakeDaemon daemon(Fault::none, 0);
    SettingRow unset = ROW;
    unset.key = "nothing";
    SettingRow set = ROW;
    set.key = "number";
    const SettingRow rows[] = {set, unset, set};
    EXPECT_EQ(host_device()->read(rows), (std::vector<DeviceValue>{5, {}, 5}));
}

TEST(Config, TheActiveInputMethodIsPendingUntilTheExchangeFlushesIt)
{
    const struct {
        Fault fault;
        const char *outcomes;
    } cases[] = {{Fault::none, " made "}, {Fault::refuse, " refused "}, {Fault::die, " pending "}};
    for (const auto &test : cases) {
        const FakeDaemon daemon(test.fault, 3); // fails after the read and the write
        account().start({});
        EXPECT_EQ(isf_control_set_active_ime("kbd"), 0);
        EXPECT_EQ(outcomes(), " pending ");
        if (test.fault == Fault::none)
            host_device()->make_durable();
        else
            EXPECT_THROW(host_device()->make_durable(), DaemonError);
        EXPECT_EQ(outcomes(), test.outcomes);
        if (test.fault == Fault::none) {
            EXPECT_NE(host_device()->durability_warning().find("can't be found"), std::string::npos);
        }
    }
}

TEST(Config, ARefusedChangeIsNotMade)
{
    const FakeDaemon daemon(Fault::none, 0);
    account().start([](size_t, const Change &change) {
        if (change.outcome == Change::Outcome::pending)
            throw PlatformError("it must not");
    });
    const scim::ConfigPointer config = open_config();
    EXPECT_FALSE(config->write("number", 7));
    EXPECT_EQ(isf_control_set_active_ime("kbd"), -1);
    EXPECT_EQ(outcomes(), "number refused  refused ");
    EXPECT_EQ(problems(), "it must notit must not");
    EXPECT_EQ(config->read("number", 42), 5);
    account().finish();

    host_device()->require_writable(SETTINGS[0]);
    open_config()->write("/FrontEnd/Socket/ConfigReadOnly", true);
    EXPECT_THROW(host_device()->require_writable(SETTINGS[0]), DaemonError);
}

TEST(Device, KnowsWhetherTheServiceUsesIt)
{
    const FakeDaemon daemon(Fault::none, 0);
    for (const SettingRow &row : SETTINGS)
        EXPECT_TRUE(host_device()->serves(row)) << row.member;
}

TEST(ActiveIme, ReturnsWhatItAccepted)
{
    const FakeDaemon daemon(Fault::none, 0);
    char *identifier = nullptr;
    EXPECT_LE(isf_control_get_active_ime(&identifier), 0);
    EXPECT_EQ(problems(), "");
    for (const std::string &accepted :
         {std::string("kbd"), std::string(16'000, '['), std::string("\xc3\xa9 1")}) {
        EXPECT_EQ(isf_control_set_active_ime(accepted.c_str()), 0);
        EXPECT_EQ(isf_control_get_active_ime(&identifier), accepted.size());
        EXPECT_EQ(identifier, accepted);
        g_free(identifier);
        EXPECT_EQ(account().changes().back().outcome, Change::Outcome::made);
    }
    EXPECT_EQ(isf_control_set_active_ime("\xc3\xa9 1"), 0);
    EXPECT_EQ(account().changes().size(), 3) << "it was active already";
    for (const std::string &refused : {std::string(), std::string(" a"), std::string("a "),
                                       std::string("a\nb"), std::string("\xff"), std::string(16'001, '[')}) {
        EXPECT_EQ(isf_control_set_active_ime(refused.c_str()), ISF_CONTROL_INVALID_IDENTIFIER);
        scim::ConfigModule("socket").create_config()->write("/DefaultIMEngineFactory/~other",
                                                            scim::String(refused));
        EXPECT_LE(isf_control_get_active_ime(&identifier), 0);
    }
}

TEST(ActiveIme, AFailureToSetItIsAProblem)
{
    const struct {
        Fault fault;
        int question; ///< 1 reads the old value, 2 writes, 3 flushes
        const char *outcomes;
    } cases[] = {{Fault::die, 1, ""},
                 {Fault::die, 2, " pending "},
                 {Fault::stall, 3, " pending "},
                 {Fault::refuse, 2, " refused "},
                 {Fault::refuse, 3, " refused "}};
    for (const auto &test : cases) {
        const FakeDaemon daemon(test.fault, test.question);
        EXPECT_EQ(isf_control_set_active_ime("kbd"), -1);
        EXPECT_EQ(outcomes(), test.outcomes);
        EXPECT_TRUE(problems().starts_with("the SCIM daemon")) << problems();
    }
}

} // namespace
