#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>
#include <glib.h>

#include "backups.h"
#include "files.h"
#include "json.h"
#include "snapshot.h"
#include "text.h"

/// Key of the record that holds a snapshot in a backup of the service's.
static constexpr char RECORD_KEY[] = "0";

/// Reads a file of the user's, or standard input.
static std::string read_in(const std::string &name)
{
    const Descriptor file(name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw HostError(g_strerror(errno));
    return read_to_end(file, MAX_RECORD_FILE_SIZE);
}

/// Whether scripts can read it. A device reads more than that, such as comments.
static bool is_strict_json(const std::string &text)
{
    SQLite::Database database(":memory:");
    SQLite::Statement query(database, "SELECT json_valid(?)");
    query.bind(1, text);
    return query.executeStep() && query.getColumn(0).getInt() != 0;
}

/// A snapshot as it is, or as a device reads it.
static std::string make_strict(const std::string &text)
{
    if (is_strict_json(text))
        return text;
    fprintf(stderr, "ime-backupctl: it is no strict JSON; what a device reads in it is stored\n");
    g_autoptr(JsonNode) root = parse_json(text);
    g_autofree gchar *strict = json_to_string(root, FALSE);
    return strict;
}

/// The record file of a backup that holds this snapshot.
static std::string wrap_snapshot(const std::string &text)
{
    const std::string now = std::to_string(g_get_real_time() / 1000);
    return encode_record_file({{RECORD_KEY, now, text}});
}

static void check_record_file(const std::string &content)
{
    try {
        snapshot_in({content, decode_record_file(content)});
    } catch (const HostError &error) {
        throw DamagedError(error.what());
    }
}

/// What is stored: the record file as it is, or one that is made of a bare snapshot.
static std::string check_content(const std::string &content)
{
    if (is_record_file(content)) {
        check_record_file(content);
        return content;
    }
    if (g_utf8_validate(content.data(), static_cast<gssize>(content.size()), nullptr) == FALSE)
        throw HostError("it is no UTF-8 text");
    const std::string text = content.substr(0, content.find_last_not_of(" \t\r\n") + 1);
    try {
        for (const std::string &oddity : find_oddities(text))
            fprintf(stderr, "ime-backupctl: %s\n", escaped(oddity).c_str());
    } catch (const HostError &error) {
        throw HostError(std::string("it is neither a backup nor a snapshot: ") + error.what());
    }
    return wrap_snapshot(make_strict(text));
}

static void import_backup(Cli &cli, const std::string &name)
{
    cli.document.set_result(false);
    cli.document.set("backup", Json());
    cli.document.set("stored", Json(false));
    CloudStore store;
    if (!store.exists())
        throw PlatformError("there is no cloud store " + store.location().string() +
                            "; \"ime-backupctl backup\" makes it");
    std::string content;
    try {
        content = check_content(read_in(name));
    } catch (const DamagedError &error) {
        throw DamagedError(name + " can't be imported: " + error.what());
    } catch (const HostError &error) {
        throw HostError(name + " can't be imported: " + error.what());
    }
    const BackupNumber number = store.add(content);
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
