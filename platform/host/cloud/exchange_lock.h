#pragma once

/// Held by the process whose exchange is under way: exchanges share their files, so one state root sees one
/// at a time. A process that dies lets go of it.
class ExchangeLock
{
public:
    ExchangeLock() = default;
    ExchangeLock(const ExchangeLock &) = delete;
    ExchangeLock &operator=(const ExchangeLock &) = delete;
    ~ExchangeLock() { release(); }

    /// @return false when another process holds it
    /// @throws HostError when the lock can't be made
    bool try_acquire();
    void release();

private:
    int descriptor = -1;
};
