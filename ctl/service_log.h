#pragma once

#include <filesystem>

#include "files.h"

/// Below the state root: what the service logs when it isn't shown.
inline constexpr char SERVICE_LOG[] = "service.log";

/// The service's log file, and where in it this exchange's lines begin.
class ServiceLog
{
public:
    /// @throws PlatformError when there can be none
    ServiceLog();

    int descriptor() const { return log.get(); }

    /// The last lines of this exchange, for a person, and where there are more.
    std::string last_lines() const;

private:
    void rotate();

    std::filesystem::path file;
    Descriptor log;
    off_t begin = 0;
};
