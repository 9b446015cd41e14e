#include "account.h"

void Account::start(Observer new_observer)
{
    finish();
    observer = std::move(new_observer);
    started = true;
}

void Account::finish()
{
    *this = Account();
}

size_t Account::begin(const Change &change)
{
    noted_changes.push_back(change);
    const size_t number = noted_changes.size() - 1;
    try {
        if (observer)
            observer(number, change);
    } catch (const PlatformError &) {
        end(number, Change::Outcome::refused); // also tells the observer
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

void Account::note(const Problem &problem)
{
    for (const Problem &noted : noted_problems)
        if (noted.place == problem.place && noted.reason == problem.reason)
            return;
    noted_problems.push_back(problem);
}

Account &account()
{
    static Account account_of_this_process;
    return account_of_this_process;
}
