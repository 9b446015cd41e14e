#pragma once

#include <filesystem>

#include "cloud_store.h"

/// Backups in a folder.
class FolderStore : public CloudStore
{
public:
    explicit FolderStore(const std::filesystem::path &path);

    void require_writable() const override;
    BackupNumber add(const std::string &content) override;
    void remove(const Choose &choose) override;
    std::optional<std::uintmax_t> size(BackupNumber number) const override;
    bool contains(const std::filesystem::path &file) const override;

private:
    std::optional<std::vector<std::string>> list_names() const override;
    std::string read_content(BackupNumber number) const override;

    std::filesystem::path file(BackupNumber number) const;

    const std::filesystem::path folder;
};
