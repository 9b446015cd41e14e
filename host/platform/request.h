#pragma once

#include <optional>
#include <string>

/// A request from the framework, or a reply from the application.
struct app_control {
    std::optional<std::string> operation;
    /// The answer to the request, if there is one.
    std::optional<int> result;
};
