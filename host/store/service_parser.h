#pragma once

#include <string_view>

/// Whether the service may read something in a text, with the parser that it has. That parser takes more for
/// JSON than others do.
extern "C" bool service_reads(const char *text);
