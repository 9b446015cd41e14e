#pragma once

#include <string>
#include <vector>

/// "; did you mean WORD?" for the known word that is nearest to a mistyped one, or nothing when none is near.
std::string did_you_mean(const std::string &typed, const std::vector<std::string> &known);
