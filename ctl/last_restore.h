#pragma once

#include <optional>
#include <vector>

#include "report.h"
#include "setting.h"

/// What the last restore changed on this device, as it kept it while it went.
struct LastRestore {
    BackupNumber backup = 0;
    ExchangeReport::Result result = ExchangeReport::Result::undecided; ///< when it was interrupted
    std::vector<ChangedSetting> changes; ///< from what each setting was before to what it may have become
    std::vector<SettingReport> settings; ///< all of them, as they were before
};

/// @return nothing when there was no restore, or it was undone
/// @throws HostError when it can't be read
std::optional<LastRestore> read_last_restore();

/// Once it is undone.
///
/// @throws HostError when its account can't be removed
void forget_last_restore();
