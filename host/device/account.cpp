#include "account.h"

#include "errors.h"

void Account::start(Observer new_observer, Kind new_kind)
{
    finish();
    observer = std::move(new_observer);
    kind = new_kind;
    started = true;
}

void Account::finish()
{
    observer = nullptr;
    kind = Kind::real;
    started = false;
    noted_changes.clear();
    noted_troubles.clear();
    uses.clear();
    kept.clear();
}

size_t Account::begin(const Change &change)
{
    noted_changes.push_back(change);
    const size_t number = noted_changes.size() - 1;
    try {
        if (observer)
            observer(number, change);
    } catch (const PlatformError &) {
        end(number, Change::Outcome::refused); // who was told of it before it was refused learns that it was
        throw;
    }
    return number;
}

void Account::end(size_t number, Change::Outcome outcome)
{
    Change &change = noted_changes.at(number);
    change.outcome = outcome;
    if (observer)
        observer(number, change);
}

void Account::refuse(Change change)
{
    change.outcome = Change::Outcome::refused;
    noted_changes.push_back(change);
    if (observer)
        observer(noted_changes.size() - 1, change);
}

void Account::note(const Trouble &trouble)
{
    for (const Trouble &noted : noted_troubles)
        if (noted.place == trouble.place && noted.reason == trouble.reason)
            return;
    noted_troubles.push_back(trouble);
}

size_t Account::count(Use use, const SettingRow &row) const
{
    const auto found = uses.find({use, row.place, row.key});
    return found == uses.end() ? 0 : found->second;
}

Account &account()
{
    static Account account_of_this_process;
    return account_of_this_process;
}

static std::map<SettingPlace, DeviceAccess> &places()
{
    static std::map<SettingPlace, DeviceAccess> registered;
    return registered;
}

bool register_place(SettingPlace place, DeviceAccess access)
{
    places()[place] = access;
    return true;
}

const DeviceAccess *device_access(SettingPlace place)
{
    const auto found = places().find(place);
    return found == places().end() ? nullptr : &found->second;
}
