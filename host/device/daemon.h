#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
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

/// Whether SCIM's file can keep a text as it is.
bool is_config_text(const std::string &text);

/// Whether an input method can have this identifier.
bool is_identifier(const std::string &text);

/// The key of the active input method. SCIM has a default engine for each language. A device has one for all,
/// which is SCIM's for the languages that have none of their own.
const scim::String &active_engine();

/// A connection to the SCIM daemon, which keeps the input-method configuration.
///
/// SCIM's own client connects again, unseen, when the daemon was lost, and answers alike for a key that isn't
/// set and for a daemon that doesn't answer. Here a lost daemon stays lost, with the values that it had not
/// yet flushed, and a key isn't set only when the daemon says so.
///
/// SCIM's daemon answers that all is well when its disk is full, and cuts its file. So what the file holds
/// after a flush is compared with what was written, where the file can be found.
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

    /// Reads several values with one question.
    std::vector<DeviceValue> read_values(const std::vector<scim::String> &keys);

    /// Throws when it only lets itself be read.
    void require_writable();

    /// Writes a value, which outlives the daemon once it is flushed.
    template <class Value>
    void write(const scim::String &key, const Value &value);

    /// Erases a key, if it is set.
    void erase(const scim::String &key);

    /// The same on the account, unless the key holds the value already, also in the file. The change is
    /// pending until it is flushed; with a daemon that is lost it stays so, since it may have arrived.
    ///
    /// @param change with the place, and the key by which the account knows it
    template <class Value>
    void write_on_account(Change change, const scim::String &key, const Value &value);

    bool has_unflushed() const { return !expected.empty(); }

    /// Throws, too, when the daemon's file lacks something then.
    void flush();

    /// Has the daemon take over what has changed in its files. Not after a flush that left something out: the
    /// daemon would forget what it still has.
    void reload();

    /// Flushes what was written, and has it outlive a power cut as far as not_assured() doesn't deny it.
    void make_durable();

    /// Why what was written may not outlive a power cut, or an empty text.
    std::string not_assured() const;

private:
    using Texts = std::map<std::string, std::string>;

    static std::optional<Texts> texts_in(const std::filesystem::path &file);
    const Texts &look_into_file();
    void compare_file();
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
    std::vector<size_t> unflushed;                              ///< changes on the account
    std::map<std::string, std::optional<std::string>> expected; ///< that the next flush writes or erases
    std::filesystem::path file;     ///< of the daemon, or empty when it is not known
    std::optional<Texts> before;    ///< what it held before that flush
    std::optional<DaemonError> cut; ///< how the file is not what it should be
    bool is_unsynced = false;       ///< something was flushed since it was synced
    bool is_doubtful = false;       ///< something was flushed that can't be synced
};
