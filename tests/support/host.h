#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gio/gio.h>

/// A folder that is removed with the object.
class TempDir
{
public:
    TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir();

    const std::filesystem::path path;
};

std::string read_file(const std::filesystem::path &file);
void write_file(const std::filesystem::path &file, const std::string &content);

struct Outcome {
    int status; ///< exit status, or -1 after a signal
    std::string output;
    std::string errors;
};

/// A running program. Its output goes to two pipes.
class Process
{
public:
    Process(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process(); ///< kills the program if it still runs

    void send(int signal);
    Outcome wait();
    bool is_running() const;
    int pid() const; ///< 0 once the program has ended

private:
    GSubprocess *process;
};
