#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

struct ObjectUnref {
    void operator()(void *object) const { g_object_unref(object); }
};

using File = std::unique_ptr<GFile, ObjectUnref>;

/// The host's cloud: a folder of backups. Each is a record file that is never changed, under a number of its
/// own.
/// Every function throws StateError when the folder can't be read or written.
class CloudStore
{
public:
    /// The folder named by $IME_BACKUP_CLOUD_STORE, a path or a URI, else one below the state root.
    CloudStore();

    /// The numbers of the backups, newest last.
    std::vector<guint64> numbers() const;

    /// The number that a person wrote, or that of the newest backup when it is empty.
    ///
    /// @throws HostError also when there is no such backup
    guint64 find(const std::string &text) const;

    /// The backup's content, as it was added.
    std::string read(guint64 number) const;

    /// Adds a backup, whole or not at all, and durably.
    ///
    /// @return its number
    guint64 add(const std::string &content);

private:
    File folder;
};
