#pragma once

#include <map>
#include <memory>
#include <optional>
#include <vector>

#define Uses_SCIM_SOCKET
#define Uses_SCIM_TRANSACTION
#define Uses_SCIM_TRANS_COMMANDS
#include <scim.h>

#include "account.h"
#include "errors.h"
#include "files.h"

/// The value that a text of SCIM's file stands for: an integer or a boolean if that is how SCIM writes one,
/// else the text. An empty one is as good as none.
DeviceValue parse_config_text(const scim::String &text);

/// The text that SCIM's file has for a value.
scim::String format_config_text(const DeviceValue &value);

/// Whether SCIM's file can keep a text as it is.
bool is_config_text(const std::string &text);

/// A connection to the SCIM daemon, which keeps the input-method configuration.
///
/// SCIM's own client connects again, unseen, when the daemon was lost, and answers alike for a key that isn't
/// set and for a daemon that doesn't answer. Here a lost daemon stays lost, with the values that it had not
/// yet flushed, and a key isn't set only when the daemon says so.
///
/// Every function throws DaemonError: when the daemon refuses, and when it is lost or doesn't answer, which
/// makes each one throw from then on.
///
/// In a trial nothing that is written reaches the daemon: it is read again as if it had, until the account is
/// finished.
class ScimDaemon
{
public:
    /// The process's connection, which all share for as long as one of them or the account keeps it.
    static std::shared_ptr<ScimDaemon> connect();

    /// Where the daemon is looked for.
    static std::string default_address();

    ScimDaemon();

    /// `Value` is scim::String, int or bool.
    template <class Value>
    std::optional<Value> read(const scim::String &key);

    /// Reads several values, as texts, with one question.
    std::vector<std::optional<scim::String>> read_texts(const std::vector<scim::String> &keys);

    /// Writes a value, which outlives the daemon once it is flushed.
    template <class Value>
    void write(const scim::String &key, const Value &value);

    /// Erases a key, if it is set.
    void erase(const scim::String &key);

    /// Notes a change that was written. It is pending until it is flushed; with a daemon that is lost it
    /// stays so, since it may have arrived.
    void note_unflushed(size_t change) { unflushed.push_back(change); }
    bool has_unflushed() const { return !unflushed.empty(); }

    void flush();

    bool is_lost() const { return lost.has_value(); }

    /// Has the daemon take over what has changed in its files.
    void reload();

private:
    /// What a trial would have written; none is what it would have erased.
    using Overlay = std::map<scim::String, DeviceValue>;

    Overlay *overlay_to_write(const std::string &what);
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
    std::vector<size_t> unflushed;  ///< changes on the account
    std::weak_ptr<Overlay> overlay; ///< the account keeps it
};
