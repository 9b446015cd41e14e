#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include "backups.h"
#include "files.h"
#include "import.h"
#include "text.h"

/// Reads a file of the user's, or standard input.
static std::string read_in(const std::string &name)
{
    const Descriptor file(name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw HostError(g_strerror(errno));
    return read_to_end(file, MAX_RECORD_FILE_SIZE);
}

static void import_backup(Cli &cli, const std::string &name)
{
    cli.document.set_result(false);
    cli.document.set("backup", Json());
    cli.document.set("stored", Json(false));
    const auto store = open_store(cli.service.timeout_seconds);
    require_store(*store);
    Importable importable;
    try {
        importable = make_importable(read_in(name));
    } catch (const DamagedError &error) {
        throw DamagedError(name + " can't be imported: " + error.what());
    } catch (const HostError &error) {
        throw HostError(name + " can't be imported: " + error.what());
    }
    for (const std::string &remark : importable.remarks)
        fprintf(stderr, "ime-backupctl: %s\n", escaped(remark).c_str());
    const BackupNumber number = store->add(importable.content);
    cli.document.set_result(true);
    cli.document.set("backup", Json(number));
    cli.document.set("stored", Json(true));
    cli.document.say(name_of(number) + "  imported");
}

void add_import(Cli &cli)
{
    auto *command = add_command(
        cli.app,
        {"import", GROUP_STORE, "Take a backup from a file into the store",
         "The file is one that export wrote, or a bare snapshot: any JSON object, such as one that was taken "
         "from "
         "a device. What is odd about a snapshot is told, and does not keep it out. \"-\" is standard input.",
         "ime-backupctl import keyboard.json"});
    const auto file = std::make_shared<std::string>();
    add_argument(*command, LABEL_FILE, *file, "The file")->required();
    command->callback([&cli, file] { import_backup(cli, *file); });
}
