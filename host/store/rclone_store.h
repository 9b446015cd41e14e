#pragma once

#include <map>

#include "cloud_store.h"
#include "rclone.h"

/// Backups in a remote place that rclone reaches. No place of this kind can be locked, and few can make a
/// file only if there is none of its name. So a backup is uploaded under a name of its own, which takes up
/// its number without counting as a backup; when no other file has this number, then or before, it gets the
/// name of a backup. What can't be written to shows only when it is written to.
class RcloneStore : public CloudStore
{
public:
    /// @param target the place, as rclone has it
    RcloneStore(const std::string &location, std::string target, std::optional<double> timeout_seconds);

    void fetch(const std::vector<BackupNumber> &numbers) const override;
    BackupNumber add(const std::string &content) override;
    void remove(const Choose &choose) override;
    std::optional<std::uintmax_t> size(BackupNumber number) const override;

private:
    std::optional<std::vector<std::string>> list_names() const override;
    std::string read_content(BackupNumber number) const override;

    static BackupNumber highest_taken(const std::vector<std::string> &names);
    bool try_to_add(BackupNumber number, const std::string &content) const;
    bool give_name(const std::string &upload, BackupNumber number, const std::string &content) const;
    void discard(const std::string &name) const;
    void discard_abandoned(const std::vector<std::string> &names) const;

    std::string file(const std::string &name) const;
    std::vector<std::string> names_there() const;
    bool is_there(const std::string &name) const;
    Rclone::Result get(const std::string &name) const;
    void put(const std::string &name, const std::string &content) const;
    void require_done(const Rclone::Result &result, const std::string &remark = "") const;

    const std::string target;
    const Rclone rclone;
    mutable std::map<BackupNumber, std::string> fetched; ///< what was handed over together
};
