#include "cli.h"
#include "format.h"
#include "text.h"

static int list()
{
    const CloudStore store;
    const CloudStore::Listing listing = store.list();
    for (const BackupNumber number : listing.numbers)
        printf("%s\n", describe_backup(store, number).c_str());
    for (const std::string &name : listing.left_out)
        fprintf(stderr, "ime-backupctl: %s is left out: no backup has this number\n", escaped(name).c_str());
    return EXIT_DONE;
}

void add_list(Cli &cli)
{
    cli.app.add_subcommand("list", "List the backups, newest last")->callback([&] { cli.status = list(); });
}
