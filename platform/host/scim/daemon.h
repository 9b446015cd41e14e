#pragma once

#include <memory>
#include <optional>

#define Uses_SCIM_SOCKET
#define Uses_SCIM_TRANSACTION
#define Uses_SCIM_TRANS_COMMANDS
#include <scim.h>

#include "errors.h"
#include "files.h"

/// A connection to the SCIM daemon, which keeps the input-method configuration.
///
/// SCIM's own client connects again, unseen, when the daemon was lost, and answers alike for a key that isn't
/// set and for a daemon that doesn't answer. Here a lost daemon stays lost, with the values that it had not
/// yet flushed, and a key isn't set only when the daemon says so.
///
/// Every function throws DaemonError: when the daemon refuses, and when it is lost or doesn't answer, which
/// makes each one throw from then on.
class ScimDaemon
{
public:
    /// The process's connection, which all share for as long as one of them or the account keeps it.
    static std::shared_ptr<ScimDaemon> connect();

    ScimDaemon();

    /// `Value` is scim::String, int or bool.
    template <class Value>
    std::optional<Value> read(const scim::String &key);

    /// Writes a value, which outlives the daemon once it is flushed.
    template <class Value>
    void write(const scim::String &key, const Value &value);

    void erase(const scim::String &key);

    void flush();

    bool is_lost() const { return lost.has_value(); }

    /// Has the daemon take over what has changed in its files.
    void reload();

private:
    bool ask(scim::Transaction &question);
    void require(scim::Transaction &question, const std::string &what);
    [[noreturn]] void lose(const std::string &how);
    std::string name() const;

    const scim::SocketAddress address{scim::scim_get_default_socket_config_address()};
    const int timeout_ms = scim::scim_get_default_socket_timeout();
    const Descriptor connection;
    const scim::Socket socket;
    scim::uint32 magic_key = 0;
    std::optional<DaemonError> lost;
};
