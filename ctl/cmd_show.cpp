#include <memory>
#include <unistd.h>

#include "cli.h"
#include "text.h"

static int show(const std::string &id)
{
    const CloudStore store;
    const BackupNumber number = store.find(id);
    CloudRecords records;
    try {
        records = decode_record_file(store.read(number));
    } catch (const HostError &error) {
        throw HostError("backup " + std::to_string(number) + " can't be shown: " + error.what());
    }
    // In a pipe, the text is the data itself; on a terminal it must not be obeyed.
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    for (const CloudRecord &record : records) {
        const std::string value = record.value.value_or("");
        printf("%s\n", is_terminal ? escaped(value).c_str() : value.c_str());
    }
    return EXIT_DONE;
}

void add_show(Cli &cli)
{
    auto *command =
        cli.app.add_subcommand("show", "Show the snapshot in the newest backup, or in the one named");
    const auto id = std::make_shared<std::string>();
    add_backup_id(*command, *id);
    command->callback([&cli, id] { cli.status = show(*id); });
}
