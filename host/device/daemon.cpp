#include "daemon.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <fcntl.h>
#include <pwd.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <glib.h>

#define Uses_SCIM_CONFIG_PATH
#include <scim.h>

/// The file has one line for each value, and its reader does not survive a longer one.
static constexpr size_t MAX_TEXT_LENGTH = 16'000;

DeviceValue parse_config_text(const scim::String &text)
{
    int number = 0;
    std::from_chars(text.data(), text.data() + text.length(), number);
    for (const DeviceValue &value : {DeviceValue(number), DeviceValue(true), DeviceValue(false)})
        if (config_text(value) == text)
            return value;
    return text.empty() ? DeviceValue() : text;
}

bool is_config_text(const std::string &text)
{
    // The reader trims a value.
    static constexpr std::string_view BLANKS = " \t\n\v";
    return !text.empty() && text.length() <= MAX_TEXT_LENGTH &&
           text.find_first_of(std::string_view("\n\0", 2)) == std::string::npos &&
           BLANKS.find(text.front()) == std::string_view::npos &&
           BLANKS.find(text.back()) == std::string_view::npos;
}

bool is_identifier(const std::string &text)
{
    return is_config_text(text) &&
           g_utf8_validate(text.data(), static_cast<gssize>(text.length()), nullptr) != FALSE &&
           std::none_of(text.begin(), text.end(), [](char c) { return g_ascii_iscntrl(c); });
}

const scim::String &active_engine()
{
    static const scim::String key(SCIM_CONFIG_DEFAULT_IMENGINE_FACTORY "/~other");
    return key;
}

namespace
{

/// How a value travels, and the commands that carry it.
template <class Value>
struct Wire;

template <>
struct Wire<scim::String> {
    using Type = scim::String;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_STRING;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_STRING;
};

template <>
struct Wire<int> {
    using Type = scim::uint32;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_INT;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_INT;
};

template <>
struct Wire<bool> {
    using Type = scim::uint32;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_BOOL;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_BOOL;
};

/// A daemon that only lets itself be read has this set.
constexpr char READ_ONLY[] = "/FrontEnd/Socket/ConfigReadOnly";

/// A question, with its answer in the same place afterwards.
struct Question : scim::Transaction {
    Question(scim::uint32 magic_key, int command)
    {
        put_command(scim::SCIM_TRANS_CMD_REQUEST);
        put_data(magic_key);
        put_command(command);
    }
};

} // namespace

std::shared_ptr<ScimDaemon> ScimDaemon::connect()
{
    // A daemon that is lost in an exchange stays lost to the end of it.
    return share_in_account<ScimDaemon>();
}

static constexpr useconds_t CONNECT_RETRY_US = 10'000;

/// Connects as SCIM's own client does, but for no longer than this: a daemon that is stopped has others wait
/// in front of its door, and then in a queue to that.
static Descriptor connect_to(const scim::SocketAddress &address, int timeout_ms)
{
    if (!address.valid())
        throw DaemonError("SCIM_SOCKET_ADDRESS is no address of a SCIM daemon");
    const auto *target = static_cast<const sockaddr *>(address.get_data());
    Descriptor connection(socket(target->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (connect(connection.get(), target, static_cast<socklen_t>(address.get_data_length())) != 0 &&
           errno != EISCONN) {
        if (errno != EAGAIN && errno != EINPROGRESS && errno != EALREADY)
            throw DaemonError("the SCIM daemon (at " + address.get_address() + ") isn't running");
        if (std::chrono::steady_clock::now() > end)
            throw DaemonError("the SCIM daemon (at " + address.get_address() + ") does not answer");
        usleep(CONNECT_RETRY_US);
    }
    fcntl(connection.get(), F_SETFL, 0); // SCIM's socket waits before it reads
    return connection;
}

ScimDaemon::ScimDaemon() : connection(connect_to(address, timeout_ms)), socket(connection.get())
{
    if (!scim::scim_socket_open_connection(magic_key, "SocketConfig", "SocketFrontEnd", socket, timeout_ms))
        throw DaemonError(name() + "does not answer");
}

// The daemon's file.

static constexpr size_t MAX_FILE_SIZE = size_t{16} << 20;

/// Where the process at the other end of a local socket keeps its configuration, seen from here.
///
/// @return an empty path when that can't be told, or it isn't SCIM's own module that keeps it
static std::filesystem::path find_file(const Descriptor &connection)
{
    static constexpr std::string_view HOME = "SCIM_HOME=";
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 0)
        return {};
    const std::filesystem::path process = "/proc/" + std::to_string(peer.pid);
    try {
        if (read_file(process / "maps", MAX_FILE_SIZE).find("/Config/simple.so\n") == std::string::npos)
            return {};
        std::istringstream variables(read_file(process / "environ", MAX_FILE_SIZE));
        const passwd *user = getpwuid(peer.uid);
        std::string home = user == nullptr ? "" : user->pw_dir;
        for (std::string variable; std::getline(variables, variable, '\0');)
            if (variable.starts_with(HOME))
                home = variable.substr(HOME.length());
        if (home.starts_with("/"))
            return process / "root" / home.substr(1) / ".scim/config";
    } catch (const HostError &) { // another user's
    }
    return {};
}

/// The texts in the daemon's file by their keys, except one whose line is cut.
///
/// @return nothing when it can't be read
std::optional<ScimDaemon::Texts> ScimDaemon::texts_in(const std::filesystem::path &file)
{
    static constexpr std::string_view SEPARATOR = " = ";
    try {
        std::istringstream lines(read_file(file, MAX_FILE_SIZE));
        Texts texts;
        for (std::string line; std::getline(lines, line) && !lines.eof();)
            if (const size_t end = line.find(SEPARATOR); end != std::string::npos)
                texts[line.substr(0, end)] = line.substr(end + SEPARATOR.length());
        return texts;
    } catch (const HostError &) {
        return std::nullopt;
    }
}

const ScimDaemon::Texts &ScimDaemon::look_into_file()
{
    if (!before) {
        file = find_file(connection);
        before = texts_in(file).value_or(Texts());
    }
    return *before;
}

void ScimDaemon::compare_file()
{
    const std::optional<Texts> now = texts_in(file);
    if (!now) {
        file.clear();
        return;
    }
    std::vector<std::string> lacking;
    for (const auto &[key, text] : expected) {
        const auto held = now->find(key);
        // The value for all users takes the place of one that was erased.
        if (held == now->end() ? text.has_value() : held->second != (text ? text : read<scim::String>(key)))
            lacking.push_back(key);
    }
    const auto foreign = std::count_if(before->begin(), before->end(), [&](const auto &line) {
        return !expected.contains(line.first) && !now->contains(line.first);
    });
    if (foreign > 0)
        lacking.push_back(std::to_string(foreign) + " other keys");
    cut.reset();
    if (lacking.empty())
        return;
    static constexpr std::string_view ROOT = "/root"; // of the process, in front of the path that it uses
    const std::string path = file.string().substr(file.string().find(ROOT) + ROOT.length());
    cut = DaemonError(name() + "did not write all of " + path + ", which lacks " + join(lacking, ", ") +
                      "; free space on its disk, and do this again before the daemon ends");
    throw DaemonError(*cut);
}

void ScimDaemon::make_durable()
{
    if (cut)
        throw DaemonError(*cut);
    if (has_unflushed()) {
        flush();
        reload();
    }
    is_doubtful = is_doubtful || (is_unsynced && !sync_file(file));
    is_unsynced = false;
}

std::string ScimDaemon::not_assured() const
{
    return is_doubtful ? "what was written to " + name() +
                             "is not assured to outlive a power cut, since its file can't be " +
                             (file.empty() ? "found" : "synced")
                       : "";
}

// What it is asked.

std::string ScimDaemon::name() const
{
    return "the SCIM daemon (at " + address.get_address() + ") ";
}

void ScimDaemon::lose(const std::string &how)
{
    lost = DaemonError(name() + how);
    throw DaemonError(*lost);
}

/// @return false when the daemon answers that it can't; else the answer's data is next, if it has some
bool ScimDaemon::ask(scim::Transaction &question)
{
    if (lost)
        throw DaemonError(*lost);
    if (!question.write_to_socket(socket))
        lose("was lost");
    if (!question.read_from_socket(socket, timeout_ms))
        lose(socket.wait_for_data(0) == 0 ? "does not answer" : "was lost");
    int reply = 0;
    if (!question.get_command(reply) || reply != scim::SCIM_TRANS_CMD_REPLY)
        lose("gave an answer that makes no sense");
    if (question.get_data_type() != scim::SCIM_TRANS_DATA_COMMAND)
        return true;
    return question.get_command(reply) && reply == scim::SCIM_TRANS_CMD_OK;
}

void ScimDaemon::require(scim::Transaction &question, const std::string &what)
{
    if (!ask(question))
        throw DaemonError(name() + "refused to " + what);
}

template <class Value>
std::optional<Value> ScimDaemon::read(const scim::String &key)
{
    Question question(magic_key, Wire<Value>::GET);
    question.put_data(key);
    typename Wire<Value>::Type value{};
    if (!ask(question))
        return std::nullopt;
    if (!question.get_data(value))
        lose("gave an answer that makes no sense");
    return static_cast<Value>(value);
}

std::vector<DeviceValue> ScimDaemon::read_values(const std::vector<scim::String> &keys)
{
    Question question(magic_key, Wire<scim::String>::GET);
    for (size_t i = 0; i < keys.size(); i++) {
        if (i > 0)
            question.put_command(Wire<scim::String>::GET);
        question.put_data(keys[i]);
    }
    std::vector<DeviceValue> values;
    if (ask(question)) {
        scim::String text;
        int reply = 0;
        while (question.get_data(text) && question.get_command(reply))
            values.push_back(parse_config_text(text));
    }
    if (values.size() == keys.size())
        return values;
    // The answer leaves out what isn't set, and doesn't tell which that is.
    values.clear();
    for (const scim::String &key : keys)
        values.push_back(parse_config_text(read<scim::String>(key).value_or("")));
    return values;
}

void ScimDaemon::require_writable()
{
    if (read<bool>(READ_ONLY).value_or(false))
        throw DaemonError(name() + "can only be read");
}

template <class Value>
void ScimDaemon::write(const scim::String &key, const Value &value)
{
    Question question(magic_key, Wire<Value>::SET);
    question.put_data(key);
    question.put_data(static_cast<typename Wire<Value>::Type>(value));
    look_into_file();
    require(question, "store " + key);
    expected[key] = config_text(value);
}

template <class Value>
void ScimDaemon::write_on_account(Change change, const scim::String &key, const Value &value)
{
    const auto stored = read<scim::String>(key);
    const Texts &lines = look_into_file();
    if (const auto line = lines.find(key);
        stored == config_text(change.after) &&
        (file.empty() || (line != lines.end() && line->second == *stored))) {
        is_unsynced = true; // by a process that was killed
        return;
    }
    change.before = parse_config_text(stored.value_or(""));
    const size_t number = account().begin(change);
    try {
        write(key, value);
        unflushed.push_back(number);
    } catch (const DaemonError &) {
        if (!lost) // else it may have arrived
            account().end(number, Change::Outcome::refused);
        throw;
    }
}

void ScimDaemon::erase(const scim::String &key)
{
    if (!read<scim::String>(key)) // which the daemon would refuse
        return;
    Question question(magic_key, scim::SCIM_TRANS_CMD_ERASE_CONFIG);
    question.put_data(key);
    look_into_file();
    require(question, "erase " + key);
    expected[key] = std::nullopt;
}

void ScimDaemon::flush()
{
    const auto end_changes = [this](Change::Outcome outcome) {
        expected.clear();
        before.reset();
        for (const size_t change : std::exchange(unflushed, {}))
            account().end(change, outcome);
    };
    try {
        Question question(magic_key, scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
        require(question, "write its configuration down");
    } catch (const DaemonError &) {
        if (!lost)
            end_changes(Change::Outcome::refused);
        throw;
    }
    if (has_unflushed()) {
        is_unsynced = true;
        compare_file();
    }
    end_changes(Change::Outcome::made);
}

void ScimDaemon::reload()
{
    if (cut)
        throw DaemonError(*cut);
    Question question(magic_key, scim::SCIM_TRANS_CMD_RELOAD_CONFIG);
    require(question, "reload its configuration");
}

template std::optional<scim::String> ScimDaemon::read(const scim::String &);
template std::optional<int> ScimDaemon::read(const scim::String &);
template std::optional<bool> ScimDaemon::read(const scim::String &);
template void ScimDaemon::write(const scim::String &, const scim::String &);
template void ScimDaemon::write(const scim::String &, const int &);
template void ScimDaemon::write(const scim::String &, const bool &);
template void ScimDaemon::write_on_account(Change, const scim::String &, const scim::String &);
template void ScimDaemon::write_on_account(Change, const scim::String &, const int &);
template void ScimDaemon::write_on_account(Change, const scim::String &, const bool &);
