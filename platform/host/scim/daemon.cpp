#include "daemon.h"

#include <chrono>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "account.h"

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
    static std::weak_ptr<ScimDaemon> shared;
    std::shared_ptr<ScimDaemon> daemon = shared.lock();
    if (!daemon) {
        daemon = std::make_shared<ScimDaemon>();
        shared = daemon;
        // A daemon that is lost in an exchange stays lost to the end of it.
        account().keep(daemon);
    }
    return daemon;
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
    if (socket.wait_for_data(timeout_ms) == 0)
        lose("does not answer");
    if (!question.read_from_socket(socket, timeout_ms))
        lose("was lost");
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

template <class Value>
void ScimDaemon::write(const scim::String &key, const Value &value)
{
    Question question(magic_key, Wire<Value>::SET);
    question.put_data(key);
    question.put_data(static_cast<typename Wire<Value>::Type>(value));
    require(question, "store " + key);
}

void ScimDaemon::erase(const scim::String &key)
{
    Question question(magic_key, scim::SCIM_TRANS_CMD_ERASE_CONFIG);
    question.put_data(key);
    require(question, "erase " + key);
}

void ScimDaemon::flush()
{
    Question question(magic_key, scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
    require(question, "write its configuration down");
}

void ScimDaemon::reload()
{
    Question question(magic_key, scim::SCIM_TRANS_CMD_RELOAD_CONFIG);
    require(question, "reload its configuration");
}

template std::optional<scim::String> ScimDaemon::read(const scim::String &);
template std::optional<int> ScimDaemon::read(const scim::String &);
template std::optional<bool> ScimDaemon::read(const scim::String &);
template void ScimDaemon::write(const scim::String &, const scim::String &);
template void ScimDaemon::write(const scim::String &, const int &);
template void ScimDaemon::write(const scim::String &, const bool &);
