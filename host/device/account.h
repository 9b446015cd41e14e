/** @file
 * What the host's libraries did to the device in this process, in the one place that they share. The service
 * goes on after a failure, so that nothing which it hands back tells whether an exchange did what it should:
 * this does. A library notes each change before it makes it, and each trouble that it has.
 *
 * All of it is used on one thread.
 */
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include "ime_backup_settings.h"

/// A value as the device keeps it; none when it is not set.
using DeviceValue = std::optional<std::variant<bool, int, std::string>>;

/// A change to a key of the device: one that was made, or that this process was to make.
struct Change {
    enum class Outcome {
        pending, ///< begun, and perhaps made
        made,
        refused
    };

    SettingPlace place;
    std::string key;
    DeviceValue before;
    DeviceValue after;
    Outcome outcome = Outcome::pending;
};

/// What could not be read or written.
struct Trouble {
    enum class Kind {
        unusable, ///< the place can't be used: it isn't there, doesn't answer or is damaged
        unfit,    ///< what it holds can't be backed up; a restore may mend that
        refused   ///< the place is there, and doesn't accept this value
    };

    Kind kind;
    SettingPlace place;
    std::string reason; ///< for a person, on one line
};

/// What a library was asked to do with a key.
enum class Use { reading, writing };

class Account
{
public:
    using Observer = std::function<void(size_t number, const Change &change)>;

    enum class Kind {
        real,
        trial ///< nothing is written: a library notes what it would have written, and reads it again as if it
              ///< were
    };

    /// Begins an account. The observer is told of each change when it begins, and throws PlatformError if it
    /// must not; and when its outcome is known.
    void start(Observer observer, Kind kind = Kind::real);

    bool is_trial() const { return kind == Kind::trial; }

    /// Whether it is that of an exchange, at whose end what was written is made durable.
    bool is_started() const { return started; }

    /// Ends it, and lets go of all that is in it.
    void finish();

    /// Notes a change that is about to be made.
    ///
    /// @return its number
    /// @throws PlatformError when it must not be made
    size_t begin(const Change &change);

    void end(size_t number, Change::Outcome outcome);

    /// Notes a change that can't even be begun.
    void refuse(Change change);

    /// Notes a trouble, once.
    void note(const Trouble &trouble);

    /// Notes that a key was to be read or written, whatever comes of it. What the service asked for and is
    /// not noted failed on its way here.
    void note(Use use, SettingPlace place, const std::string &key) { uses[{use, place, key}]++; }

    /// How often.
    size_t count(Use use, const SettingRow &row) const;

    /// Keeps something, such as a connection, until the account is finished.
    void keep(std::shared_ptr<void> object) { kept.push_back(std::move(object)); }

    const std::vector<Change> &changes() const { return noted_changes; }
    const std::vector<Trouble> &troubles() const { return noted_troubles; }

private:
    std::vector<Change> noted_changes;
    std::vector<Trouble> noted_troubles;
    std::map<std::tuple<Use, SettingPlace, std::string>, size_t> uses;
    std::vector<std::shared_ptr<void>> kept;
    Observer observer;
    Kind kind = Kind::real;
    bool started = false;
};

/// The account of this process.
Account &account();

/// The one object of its type, made when it is first needed, which all share for as long as one of them or
/// the account keeps it.
template <class Object>
std::shared_ptr<Object> share_in_account()
{
    static std::weak_ptr<Object> shared;
    std::shared_ptr<Object> object = shared.lock();
    if (!object) {
        object = std::make_shared<Object>();
        shared = object;
        account().keep(object);
    }
    return object;
}

/// How a place of the device is used other than through its C interface: by what looks at all places alike.
/// Nothing of it goes to the account. Each throws PlatformError when the place can't be used.
struct DeviceAccess {
    /// @param rows of this place
    /// @return a value for each
    std::vector<DeviceValue> (*read_all)(const std::vector<SettingRow> &rows);
    /// @throws ValueError when the place doesn't accept the value
    void (*write)(const SettingRow &row, const DeviceValue &value);
    void (*require_writable)();
    /// Has what was written since the account was started outlive a power cut. Nothing where it does at once.
    void (*make_durable)() = nullptr;
    /// Where the place is looked for.
    std::string (*where)() = nullptr;

    DeviceValue read(const SettingRow &row) const { return read_all({row}).front(); }
};

/// The library that keeps a place registers it when it is loaded.
///
/// @return true
bool register_place(SettingPlace place, DeviceAccess access);

/// @return nothing when no library of the host keeps this place in this process
const DeviceAccess *device_access(SettingPlace place);
