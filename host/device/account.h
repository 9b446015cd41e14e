/** @file
 * What the platform's libraries did to the device in this process. The service goes on after a failure and
 * tells nobody, so a library notes each change before it makes the change, and each place that it can't use.
 *
 * All of it is used on one thread.
 */
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "errors.h"
#include "setting_value.h"

/// A change to a key of the device.
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

/// A place that could not be used.
struct Problem {
    enum class Kind {
        failure,
        lateness,    ///< the time of the process was over
        interruption ///< the process was asked to end
    };

    SettingPlace place;
    std::string reason; ///< for a person, on one line
    Kind kind = Kind::failure;
};

class Account
{
public:
    using Observer = std::function<void(size_t number, const Change &change)>;

    /// Begins an account. The observer is told of each change when it begins, and throws PlatformError if it
    /// must not be made; and when its outcome is known.
    void start(Observer observer);

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

    /// Notes a problem, once.
    void note(const Problem &problem);

    /// Notes that a call through the platform's interface has come to the library of this host.
    void note_call(SettingPlace place) { called.insert(place); }
    bool has_call(SettingPlace place) const { return called.contains(place); }

    /// Keeps something, such as a connection, until the account is finished.
    void keep(std::shared_ptr<void> object) { kept.push_back(std::move(object)); }

    const std::vector<Change> &changes() const { return noted_changes; }
    const std::vector<Problem> &problems() const { return noted_problems; }

private:
    std::vector<Change> noted_changes;
    std::vector<Problem> noted_problems;
    std::set<SettingPlace> called;
    std::vector<std::shared_ptr<void>> kept;
    Observer observer;
    bool started = false;
};

/// The account of this process.
Account &account();

/// The one object of its type, while there is one.
template <class Object>
inline std::weak_ptr<Object> shared_object;

/// The same, made when it is first needed. All share it for as long as one of them or the account keeps it.
template <class Object>
std::shared_ptr<Object> share_in_account()
{
    std::shared_ptr<Object> object = shared_object<Object>.lock();
    if (!object) {
        object = std::make_shared<Object>();
        shared_object<Object> = object;
        account().keep(object);
    }
    return object;
}

/// Does what the platform's interface asks for. A place that can't be used is noted, and yields `failed`.
template <class Result, class Work>
Result with_account(SettingPlace place, Result failed, Work work)
{
    try {
        return work();
    } catch (const PlatformError &error) {
        account().note({place, error.what()});
    } catch (const TimeoutError &error) {
        account().note({place, error.what(), Problem::Kind::lateness});
    } catch (const InterruptedError &error) {
        account().note({place, error.what(), Problem::Kind::interruption});
    }
    return failed;
}
