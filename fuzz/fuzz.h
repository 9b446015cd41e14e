#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline std::string text_of(const uint8_t *data, size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

/// Ends the run if a condition does not hold.
inline void require(bool holds)
{
    if (!holds)
        abort();
}
