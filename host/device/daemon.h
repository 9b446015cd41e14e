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

/// Converts a text from SCIM's file to a value: an integer or a boolean if SCIM writes it this way, else the
/// text. An empty text is no value.
DeviceValue parse_config_text(const scim::String &text);

/// True if SCIM's file can keep the text unchanged.
bool is_config_text(const std::string &text);

/// True if the text is a valid identifier of an input method.
bool is_identifier(const std::string &text);

/// Returns the key of the active input method. SCIM has a default engine for each language, a device has one
/// for all. It is stored as SCIM's default engine for languages that have none of their own.
const scim::String &active_engine();

/// A connection to the SCIM daemon, which keeps the input-method configuration.
///
/// SCIM's own client reconnects silently when the connection is lost, and returns the same for a key that
/// isn't set and for a daemon that doesn't answer. This class does neither: a lost connection stays lost,
/// since values that the daemon had not flushed are lost, too; and a key counts as not set only if the daemon
/// says so.
///
/// When its disk is full, SCIM's daemon truncates its file and still reports success. So flush() compares the
/// file with the values that were written, if it can find the file.
///
/// Every function throws DaemonError when the daemon refuses a request, does not answer, or is lost. After
/// the latter two, all functions throw.
class ScimDaemon
{
public:
    /// Returns the process's connection. The account and the callers share its ownership.
    static std::shared_ptr<ScimDaemon> connect();

    ScimDaemon();

    /// `Value` is scim::String, int or bool.
    template <class Value>
    std::optional<Value> read(const scim::String &key);

    /// Reads several values with one request.
    std::vector<DeviceValue> read_values(const std::vector<scim::String> &keys);

    /// Throws when the daemon is read-only.
    void require_writable();

    /// Writes a value. It is in the daemon's file once flush() returns.
    template <class Value>
    void write(const scim::String &key, const Value &value);

    /// Erases a key, if it is set.
    void erase(const scim::String &key);

    /// Writes a value and notes the change in the account. Does nothing if both the daemon and its file have
    /// the value already. The change is pending until flush(). It stays pending if the daemon is lost, since
    /// the value may have arrived.
    ///
    /// @param change its place, its key in the account, and its new value
    template <class Value>
    void write_on_account(Change change, const scim::String &key, const Value &value);

    bool has_unflushed() const { return !expected.empty(); }

    /// Has the daemon write its file. Throws also when the file then lacks a value.
    void flush();

    /// Has the daemon read its files again. Throws after a flush that did not write all values: the daemon
    /// would lose the values that only its memory has.
    void reload();

    /// Flushes values, and makes sure that they survive a power cut unless durability_warning() says
    /// otherwise.
    void make_durable();

    /// Returns the reason why changes may not survive a power cut; empty if they do.
    std::string durability_warning() const;

private:
    using Texts = std::map<std::string, std::string>;

    static std::optional<Texts> read_texts(const std::filesystem::path &file);
    const Texts &texts_before_flush();
    void check_file();
    bool send(scim::Transaction &request);
    void require(scim::Transaction &request, const std::string &action);
    [[noreturn]] void fail_for_good(const std::string &how);
    std::string name() const;

    const scim::SocketAddress address{scim::scim_get_default_socket_config_address()};
    const int timeout_ms = scim::scim_get_default_socket_timeout();
    const Descriptor connection;
    const scim::Socket socket;
    scim::uint32 magic_key = 0;
    std::optional<DaemonError> lost;
    std::vector<size_t> unflushed; ///< numbers of changes in the account
    /// The texts that the next flush writes; nothing for a key that it erases.
    std::map<std::string, std::optional<std::string>> expected;
    std::filesystem::path file;           ///< the daemon's file; empty when it is not known
    std::optional<Texts> before;          ///< the file's texts before the next flush
    std::optional<DaemonError> truncated; ///< the last flush did not write all values
    bool is_unsynced = false;             ///< the file was written since it was last synced
    bool is_doubtful = false;             ///< the file was written and could not be synced
};
