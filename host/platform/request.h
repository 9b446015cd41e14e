#pragma once

#include <optional>
#include <string>

/// A request as the framework receives it, or the reply that the application makes.
struct app_control {
    std::optional<std::string> operation;
    /// Set once the request is answered.
    std::optional<int> result;
};
