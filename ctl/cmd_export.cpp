#include <cerrno>
#include <cstdio>

#include <glib.h>

#include "backups.h"

namespace fs = std::filesystem;

static void write_to(FILE *stream, const std::string &content)
{
    fwrite(content.data(), 1, content.size(), stream); // its failure shows when the stream is flushed
}

/// Writes to a pipe or a device.
static void write_stream(const fs::path &name, const std::string &content)
{
    FILE *stream = fopen(name.c_str(), "we");
    if (stream != nullptr)
        write_to(stream, content);
    if (stream == nullptr || fclose(stream) != 0)
        throw HostError("can't write " + name.string() + ": " + g_strerror(errno));
}

/// Writes a file of the user's, whole or not at all.
static void write_file(const fs::path &file, const std::string &content)
{
    g_autoptr(GError) failure = nullptr;
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(file.c_str(), content.data(), static_cast<gssize>(content.size()), flags,
                                 0600, &failure) == FALSE)
        throw HostError("can't write " + file.string() + ": " + (g_strrstr(failure->message, ": ") + 2));
}

/// Writes to where a name leads: a link may lead to a pipe, whose own name is none that can be opened.
static void write_out(const CloudStore &store, const fs::path &name, const std::string &content)
{
    std::error_code error;
    const fs::file_status status = fs::status(name, error);
    if (!fs::exists(status) && fs::is_symlink(fs::symlink_status(name, error)))
        throw HostError("can't write " + name.string() + ": it is a link to nothing");
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        write_stream(name, content);
        return;
    }
    if (store.contains(name))
        throw HostError("can't write " + name.string() + ": that is in the cloud store");
    const fs::path file = fs::weakly_canonical(name, error);
    write_file(error ? name : file, content);
}

static void export_backup(Cli &cli, const std::string &id, const std::string &name)
{
    cli.document.set_result(false);
    cli.document.set("backup", Json());
    const auto store = open_store(cli.service.timeout_seconds);
    const BackupNumber number = store->find(id);
    const std::string content = read_whole(*store, number).content;
    if (name == "-") {
        write_to(stdout, content);
        cli.quiet = true; // standard output is the backup's
        return;
    }
    write_out(*store, name, content);
    cli.document.set_result(true);
    cli.document.set("backup", Json(number));
    cli.document.say(name_of(number) + "  written to " + name);
}

void add_export(Cli &cli)
{
    auto *command =
        add_command(cli.app, {"export", GROUP_STORE, "Write a backup to a file",
                              "The file can be taken in with import, here or elsewhere. A file of this "
                              "name is replaced. \"-\" is standard output.",
                              "ime-backupctl export 3 keyboard.json"});
    const auto id = std::make_shared<std::string>();
    const auto file = std::make_shared<std::string>();
    add_argument(*command, LABEL_ID, *id, "The backup's number")->required();
    add_argument(*command, LABEL_FILE, *file, "The file")->required();
    command->callback([&cli, id, file] { export_backup(cli, *id, *file); });
}
