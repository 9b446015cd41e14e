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

/// SCIM's file has one line for each value, and SCIM crashes on a longer line.
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
    // SCIM trims these from a value that it reads.
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

/// The protocol's type for a value, and the commands that read and write it.
template <class Value>
struct WireFormat;

template <>
struct WireFormat<scim::String> {
    using Type = scim::String;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_STRING;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_STRING;
};

template <>
struct WireFormat<int> {
    using Type = scim::uint32;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_INT;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_INT;
};

template <>
struct WireFormat<bool> {
    using Type = scim::uint32;
    static constexpr int GET = scim::SCIM_TRANS_CMD_GET_CONFIG_BOOL;
    static constexpr int SET = scim::SCIM_TRANS_CMD_SET_CONFIG_BOOL;
};

/// A key that is true if the daemon is read-only.
constexpr char READ_ONLY[] = "/FrontEnd/Socket/ConfigReadOnly";

/// A request to the daemon; send() replaces it with the answer.
struct Request : scim::Transaction {
    Request(scim::uint32 magic_key, int command)
    {
        put_command(scim::SCIM_TRANS_CMD_REQUEST);
        put_data(magic_key);
        put_command(command);
    }
};

} // namespace

std::shared_ptr<ScimDaemon> ScimDaemon::connect()
{
    // The account keeps the connection, so that a lost daemon stays lost to the end of the exchange.
    return share_in_account<ScimDaemon>();
}

static constexpr useconds_t CONNECT_RETRY_US = 10'000;

/// Connects as SCIM's own client does, but with a time limit: connect() blocks when the daemon is stopped and
/// its backlog is full.
static Descriptor connect_to(const scim::SocketAddress &address, int timeout_ms)
{
    if (!address.valid())
        throw DaemonError("SCIM_SOCKET_ADDRESS is not a valid address");
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
    fcntl(connection.get(), F_SETFL, 0); // blocking: SCIM's socket waits for data before it reads
    return connection;
}

ScimDaemon::ScimDaemon() : connection(connect_to(address, timeout_ms)), socket(connection.get())
{
    if (!scim::scim_socket_open_connection(magic_key, "SocketConfig", "SocketFrontEnd", socket, timeout_ms))
        throw DaemonError(name() + "does not answer");
}

// The daemon's file.

static constexpr size_t MAX_FILE_SIZE = size_t{16} << 20;

/// Returns the path at which this process finds the configuration file of the daemon at the other end of a
/// local socket; empty if it can't be found, or the daemon does not use SCIM's own configuration module.
static std::filesystem::path find_config_file(const Descriptor &connection)
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
    } catch (const HostError &) { // another user's process
    }
    return {};
}

/// Reads the texts in the daemon's file by key. Skips an incomplete last line.
///
/// @return nothing when the file can't be read
std::optional<ScimDaemon::Texts> ScimDaemon::read_texts(const std::filesystem::path &file)
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

/// Returns the texts in the daemon's file, as read before the first write since the last flush.
const ScimDaemon::Texts &ScimDaemon::texts_before_flush()
{
    if (!before) {
        file = find_config_file(connection);
        before = read_texts(file).value_or(Texts());
    }
    return *before;
}

/// Throws if the daemon's file lacks a value that was written, or a key that it had before.
void ScimDaemon::check_file()
{
    const std::optional<Texts> now = read_texts(file);
    if (!now) {
        file.clear();
        return;
    }
    std::vector<std::string> missing;
    for (const auto &[key, text] : expected) {
        const auto line = now->find(key);
        // After an erase, the system-wide value applies.
        if (line == now->end() ? text.has_value() : line->second != (text ? text : read<scim::String>(key)))
            missing.push_back(key);
    }
    const auto others = std::count_if(before->begin(), before->end(), [&](const auto &line) {
        return !expected.contains(line.first) && !now->contains(line.first);
    });
    if (others > 0)
        missing.push_back(std::to_string(others) + " other keys");
    truncated.reset();
    if (missing.empty())
        return;
    // find_config_file() put "/proc/PID/root" in front of the daemon's own path.
    static constexpr std::string_view ROOT = "/root";
    const std::string path = file.string().substr(file.string().find(ROOT) + ROOT.length());
    truncated = DaemonError(name() + "did not write all of " + path + ", which lacks " + join(missing, ", ") +
                            "; free space on its disk, and do this again before the daemon ends");
    throw DaemonError(*truncated);
}

void ScimDaemon::make_durable()
{
    if (truncated)
        throw DaemonError(*truncated);
    if (has_unflushed()) {
        flush();
        reload();
    }
    is_doubtful = is_doubtful || (is_unsynced && !sync_file(file));
    is_unsynced = false;
}

std::string ScimDaemon::durability_warning() const
{
    return is_doubtful ? "a power cut may undo what " + name() + "has stored, since its file can't be " +
                             (file.empty() ? "found" : "synced")
                       : "";
}

// Requests.

std::string ScimDaemon::name() const
{
    return "the SCIM daemon (at " + address.get_address() + ") ";
}

/// Throws, and makes all later requests throw.
void ScimDaemon::fail_for_good(const std::string &how)
{
    lost = DaemonError(name() + how);
    throw DaemonError(*lost);
}

/// Sends a request and receives the answer.
///
/// @return false when the daemon refuses; else the answer's data, if any, can be read from `request`
bool ScimDaemon::send(scim::Transaction &request)
{
    if (lost)
        throw DaemonError(*lost);
    if (!request.write_to_socket(socket))
        fail_for_good("was lost");
    if (!request.read_from_socket(socket, timeout_ms))
        fail_for_good(socket.wait_for_data(0) == 0 ? "does not answer" : "was lost");
    int reply = 0;
    if (!request.get_command(reply) || reply != scim::SCIM_TRANS_CMD_REPLY)
        fail_for_good("gave an invalid answer");
    if (request.get_data_type() != scim::SCIM_TRANS_DATA_COMMAND)
        return true;
    return request.get_command(reply) && reply == scim::SCIM_TRANS_CMD_OK;
}

void ScimDaemon::require(scim::Transaction &request, const std::string &action)
{
    if (!send(request))
        throw DaemonError(name() + "refused to " + action);
}

template <class Value>
std::optional<Value> ScimDaemon::read(const scim::String &key)
{
    Request request(magic_key, WireFormat<Value>::GET);
    request.put_data(key);
    typename WireFormat<Value>::Type value{};
    if (!send(request))
        return std::nullopt;
    if (!request.get_data(value))
        fail_for_good("gave an invalid answer");
    return static_cast<Value>(value);
}

std::vector<DeviceValue> ScimDaemon::read_values(const std::vector<scim::String> &keys)
{
    Request request(magic_key, WireFormat<scim::String>::GET);
    for (size_t i = 0; i < keys.size(); i++) {
        if (i > 0)
            request.put_command(WireFormat<scim::String>::GET);
        request.put_data(keys[i]);
    }
    std::vector<DeviceValue> values;
    if (send(request)) {
        scim::String text;
        int reply = 0;
        while (request.get_data(text) && request.get_command(reply))
            values.push_back(parse_config_text(text));
    }
    if (values.size() == keys.size())
        return values;
    // The answer skips keys that aren't set, without saying which.
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
    Request request(magic_key, WireFormat<Value>::SET);
    request.put_data(key);
    request.put_data(static_cast<typename WireFormat<Value>::Type>(value));
    texts_before_flush();
    require(request, "store " + key);
    expected[key] = config_text(value);
}

template <class Value>
void ScimDaemon::write_on_account(Change change, const scim::String &key, const Value &value)
{
    const auto stored = read<scim::String>(key);
    const Texts &lines = texts_before_flush();
    if (const auto line = lines.find(key);
        stored == config_text(change.after) &&
        (file.empty() || (line != lines.end() && line->second == *stored))) {
        is_unsynced = true; // a process that was killed may have written the file but not synced it
        return;
    }
    change.before = parse_config_text(stored.value_or(""));
    const size_t number = account().begin(change);
    try {
        write(key, value);
        unflushed.push_back(number);
    } catch (const DaemonError &) {
        if (!lost) // if lost, the value may have arrived
            account().end(number, Change::Outcome::refused);
        throw;
    }
}

void ScimDaemon::erase(const scim::String &key)
{
    if (!read<scim::String>(key)) // the daemon refuses to erase a key that isn't set
        return;
    Request request(magic_key, scim::SCIM_TRANS_CMD_ERASE_CONFIG);
    request.put_data(key);
    texts_before_flush();
    require(request, "erase " + key);
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
        Request request(magic_key, scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
        require(request, "write its configuration");
    } catch (const DaemonError &) {
        if (!lost)
            end_changes(Change::Outcome::refused);
        throw;
    }
    if (has_unflushed()) {
        is_unsynced = true;
        check_file();
    }
    end_changes(Change::Outcome::made);
}

void ScimDaemon::reload()
{
    if (truncated)
        throw DaemonError(*truncated);
    Request request(magic_key, scim::SCIM_TRANS_CMD_RELOAD_CONFIG);
    require(request, "reload its configuration");
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
