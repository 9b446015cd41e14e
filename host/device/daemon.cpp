#include "daemon.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <glib.h>

/// The file has one line for each value, and its reader does not survive a longer one.
static constexpr size_t MAX_TEXT_LENGTH = 16'000;

DeviceValue parse_config_text(const scim::String &text)
{
    int number = 0;
    std::from_chars(text.data(), text.data() + text.length(), number);
    for (const DeviceValue &value : {DeviceValue(number), DeviceValue(true), DeviceValue(false)})
        if (format_config_text(value) == text)
            return value;
    return text.empty() ? DeviceValue() : text;
}

scim::String format_config_text(const DeviceValue &value)
{
    if (!value)
        return "";
    if (const bool *truth = std::get_if<bool>(&*value); truth != nullptr)
        return *truth ? "true" : "false";
    const int *number = std::get_if<int>(&*value);
    return number != nullptr ? std::to_string(*number) : std::get<std::string>(*value);
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

std::string ScimDaemon::default_address()
{
    return scim::scim_get_default_socket_config_address();
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

/// A value that a trial would have written, as the daemon would tell it to who asks for its own type or for a
/// text.
template <class Value>
static std::optional<Value> value_as(const DeviceValue &value)
{
    if (!value)
        return std::nullopt;
    if constexpr (std::is_same_v<Value, scim::String>)
        return format_config_text(value);
    const Value *typed = std::get_if<Value>(&*value);
    return typed == nullptr ? std::nullopt : std::optional(*typed);
}

template <class Value>
std::optional<Value> ScimDaemon::read(const scim::String &key)
{
    if (const auto tried = overlay.lock(); tried && tried->contains(key))
        return value_as<Value>(tried->at(key));
    Question question(magic_key, Wire<Value>::GET);
    question.put_data(key);
    typename Wire<Value>::Type value{};
    if (!ask(question))
        return std::nullopt;
    if (!question.get_data(value))
        lose("gave an answer that makes no sense");
    return static_cast<Value>(value);
}

std::vector<std::optional<scim::String>> ScimDaemon::read_texts(const std::vector<scim::String> &keys)
{
    Question question(magic_key, Wire<scim::String>::GET);
    for (size_t i = 0; i < keys.size(); i++) {
        if (i > 0)
            question.put_command(Wire<scim::String>::GET);
        question.put_data(keys[i]);
    }
    std::vector<std::optional<scim::String>> texts;
    if (overlay.expired() && ask(question)) {
        scim::String text;
        int reply = 0;
        while (question.get_data(text) && question.get_command(reply))
            texts.emplace_back(text);
    }
    if (texts.size() == keys.size())
        return texts;
    // The answer leaves out what isn't set, and doesn't tell which that is.
    texts.clear();
    for (const scim::String &key : keys)
        texts.push_back(read<scim::String>(key));
    return texts;
}

/// Where a trial writes; nothing when this is none. What the daemon would refuse is refused.
ScimDaemon::Overlay *ScimDaemon::overlay_to_write(const std::string &what)
{
    if (!account().is_trial())
        return nullptr;
    if (read<bool>(READ_ONLY).value_or(false))
        throw DaemonError(name() + "refused to " + what);
    std::shared_ptr<Overlay> tried = overlay.lock();
    if (!tried) {
        tried = std::make_shared<Overlay>();
        overlay = tried;
        account().keep(tried);
    }
    return tried.get();
}

template <class Value>
void ScimDaemon::write(const scim::String &key, const Value &value)
{
    const std::string what = "store " + key;
    if (Overlay *tried = overlay_to_write(what); tried != nullptr) {
        tried->insert_or_assign(key, value);
        return;
    }
    Question question(magic_key, Wire<Value>::SET);
    question.put_data(key);
    question.put_data(static_cast<typename Wire<Value>::Type>(value));
    require(question, what);
}

void ScimDaemon::erase(const scim::String &key)
{
    if (!read<scim::String>(key)) // which the daemon would refuse
        return;
    const std::string what = "erase " + key;
    if (Overlay *tried = overlay_to_write(what); tried != nullptr) {
        tried->insert_or_assign(key, std::nullopt);
        return;
    }
    Question question(magic_key, scim::SCIM_TRANS_CMD_ERASE_CONFIG);
    question.put_data(key);
    require(question, what);
}

void ScimDaemon::flush()
{
    const auto end_changes = [changes = std::exchange(unflushed, {})](Change::Outcome outcome) {
        for (const size_t change : changes)
            account().end(change, outcome);
    };
    const std::string what = "write its configuration down";
    try {
        if (overlay_to_write(what) == nullptr) {
            Question question(magic_key, scim::SCIM_TRANS_CMD_FLUSH_CONFIG);
            require(question, what);
        }
    } catch (const DaemonError &) {
        if (!lost)
            end_changes(Change::Outcome::refused);
        throw;
    }
    end_changes(Change::Outcome::made);
}

void ScimDaemon::reload()
{
    if (account().is_trial() && !lost)
        return;
    Question question(magic_key, scim::SCIM_TRANS_CMD_RELOAD_CONFIG);
    require(question, "reload its configuration");
}

template std::optional<scim::String> ScimDaemon::read(const scim::String &);
template std::optional<int> ScimDaemon::read(const scim::String &);
template std::optional<bool> ScimDaemon::read(const scim::String &);
template void ScimDaemon::write(const scim::String &, const scim::String &);
template void ScimDaemon::write(const scim::String &, const int &);
template void ScimDaemon::write(const scim::String &, const bool &);
