#include "host.h"

#include <csignal>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

TempDir::TempDir()
    : path([] {
          g_autofree char *name = g_dir_make_tmp("ime-backup-test-XXXXXX", nullptr);
          return fs::path(name);
      }())
{
}

TempDir::~TempDir()
{
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

std::string read_file(const fs::path &file)
{
    std::ostringstream content;
    content << std::ifstream(file, std::ios::binary).rdbuf();
    return content.str();
}

void write_file(const fs::path &file, const std::string &content)
{
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

Process::Process(const std::vector<std::string> &arguments,
                 const std::map<std::string, std::string> &environment)
{
    std::vector<const char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);

    g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE));
    for (const char *name : {"IME_BACKUP_CLOUD_STORE", "IME_BACKUP_SERVICE", "XDG_STATE_HOME"})
        g_subprocess_launcher_unsetenv(launcher, name);
    for (const auto &[name, value] : environment)
        g_subprocess_launcher_setenv(launcher, name.c_str(), value.c_str(), TRUE);
    GError *error = nullptr;
    process = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
    if (process == nullptr)
        throw std::runtime_error(error->message);
}

Process::~Process()
{
    g_subprocess_force_exit(process);
    g_subprocess_wait(process, nullptr, nullptr);
    g_object_unref(process);
}

void Process::send(int signal)
{
    g_subprocess_send_signal(process, signal);
}

Outcome Process::wait()
{
    char *output = nullptr;
    char *errors = nullptr;
    g_subprocess_communicate_utf8(process, nullptr, nullptr, &output, &errors, nullptr);
    const Outcome outcome{g_subprocess_get_if_exited(process) != FALSE ? g_subprocess_get_exit_status(process)
                                                                       : -1,
                          output == nullptr ? "" : output, errors == nullptr ? "" : errors};
    g_free(output);
    g_free(errors);
    return outcome;
}

bool Process::is_running() const
{
    return g_subprocess_get_identifier(process) != nullptr;
}

int Process::pid() const
{
    const char *identifier = g_subprocess_get_identifier(process);
    return identifier == nullptr ? 0 : std::stoi(identifier);
}
