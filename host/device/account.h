/** @file
 * The account is a log of the changes that the platform's libraries make to the device in this process. A
 * library notes each change before it makes the change, and each place that it can't use, since the service
 * ignores most failures.
 *
 * For use on one thread only.
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
        pending, ///< begun, may have been made
        made,
        refused
    };

    SettingPlace place;
    std::string key;
    DeviceValue before;
    DeviceValue after;
    Outcome outcome = Outcome::pending;
};

/// A failure to use a place.
struct Problem {
    enum class Kind {
        failure,
        timeout,     ///< the time limit was reached
        interruption ///< a termination signal came
    };

    SettingPlace place;
    std::string reason; ///< one line for people
    Kind kind = Kind::failure;
};

/// The log of one exchange or, outside of exchanges, of the process so far.
class Account
{
public:
    using Observer = std::function<void(size_t number, const Change &change)>;

    /// Clears the account and starts it for an exchange. The observer is called when a change begins, and
    /// again when its outcome is known. It throws PlatformError to forbid a change that begins.
    void start(Observer observer);

    /// True during an exchange. The exchange makes all changes durable at its end, so libraries need not.
    bool is_started() const { return started; }

    /// Ends and clears the account, and releases the objects that it keeps.
    void finish();

    /// Notes a change that is about to be made.
    ///
    /// @return the number of the change
    /// @throws PlatformError when the change must not be made
    size_t begin(const Change &change);

    /// Notes the outcome of a change.
    void end(size_t number, Change::Outcome outcome);

    /// Notes a problem; does nothing if the same problem was noted before.
    void note(const Problem &problem);

    /// Notes a call to this host's library for a place. It shows that the process has not loaded another
    /// library in its stead.
    void note_call(SettingPlace place) { called.insert(place); }
    bool has_call(SettingPlace place) const { return called.contains(place); }

    /// Keeps an object, such as a connection, until the account is finished.
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

/// The process's object of a type, while one exists.
template <class Object>
inline std::weak_ptr<Object> shared_object;

/// Returns the process's object of a type, and makes it first if there is none. The account and the callers
/// share its ownership.
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

/// Does the work of a platform function. If the work throws, notes the problem and returns `failed`.
template <class Result, class Work>
Result note_problems(SettingPlace place, Result failed, Work work)
{
    try {
        return work();
    } catch (const PlatformError &error) {
        account().note({place, error.what()});
    } catch (const TimeoutError &error) {
        account().note({place, error.what(), Problem::Kind::timeout});
    } catch (const InterruptedError &error) {
        account().note({place, error.what(), Problem::Kind::interruption});
    }
    return failed;
}
