#include "account.h"

#include <map>

void Account::start(Observer new_observer)
{
    finish();
    observer = std::move(new_observer);
}

void Account::finish()
{
    observer = nullptr;
    noted_changes.clear();
    noted_troubles.clear();
    kept.clear();
}

size_t Account::begin(const Change &change)
{
    noted_changes.push_back(change);
    if (observer)
        observer(noted_changes.size() - 1, change);
    return noted_changes.size() - 1;
}

void Account::end(size_t number, Change::Outcome outcome)
{
    Change &change = noted_changes.at(number);
    change.outcome = outcome;
    if (observer)
        observer(number, change);
}

void Account::note(const Trouble &trouble)
{
    for (const Trouble &noted : noted_troubles)
        if (noted.place == trouble.place && noted.reason == trouble.reason)
            return;
    noted_troubles.push_back(trouble);
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
