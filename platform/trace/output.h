#pragma once

#include <string>

/// Whether a script reads the trace.
bool writes_json();

/// Writes one line where the trace goes, at once. What can't be written is lost: the service goes on.
void write_line(const std::string &line);
