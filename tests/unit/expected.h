#pragma once

#include "scripted_platform.h"

#include <string>

// Lines of a trace, as the service is to write them.

inline const std::string SERVICE = "ime_backup_service.cpp";
inline const std::string WRITER = "ime_backup_service_json_writer.cpp";
inline const std::string PARSER = "ime_backup_service_json_parser.cpp";
inline const std::string UTILITY = "utility.cpp";

inline std::string info(const std::string &file, const std::string &function, const std::string &body)
{
    return "4 " + file + ": " + function + " > \033[0;35m* Info * " + body + "\033[0;m";
}

inline std::string error(const std::string &file, const std::string &function, const std::string &body)
{
    return "6 " + file + ": " + function + " > \033[0;31m* Critical * " + body + "\033[0;m";
}

/// One text, of which a test shows the lines that differ.
inline std::string join(const Trace &trace)
{
    std::string text;
    for (const std::string &line : trace)
        text += line + "\n";
    return text;
}
