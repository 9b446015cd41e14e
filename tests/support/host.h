#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gio/gio.h>

/// A folder that goes with the object.
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

/// A program that is running, with its output going to two pipes.
class Process
{
public:
    Process(const std::vector<std::string> &arguments, const std::map<std::string, std::string> &environment);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process(); ///< kills it if it still runs

    void send(int signal);
    Outcome wait();
    bool is_running() const;
    int pid() const; ///< or 0 when it has ended

private:
    GSubprocess *process;
};
