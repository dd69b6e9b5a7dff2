#pragma once

#include "Cancellation.h"
#include "FolderRecord.h"
#include "HeldFolder.h"

#include <string>

/// Makes sure that a folder does not change between two moments.
///
/// Files at the top that `mayComeAndChange` are left out, and so are the folder's own times. What
/// cannot be read is left out, too; it cannot be copied either. `record` and `requireUnchanged`
/// throw `VaultError` (verificationFailed) with the reason for the user, also when a file is open
/// for writing in another program, and `OperationCancelled`.
namespace FolderExamination {

/// True for names of files at the top that are the file manager's; also for those that are the
/// system's (`systemVolumeItems`), where it keeps files of its own on volumes. Elsewhere these are
/// the user's.
bool mayComeAndChange(const std::string& name);
/// What the folder's entries look like now. `cancellation` may be null.
FolderRecord record(const HeldFolder& folder, const Cancellation* cancellation);
/// Throws unless the folder is in its place, and it and each of its entries are as recorded.
void requireUnchanged(const HeldFolder& folder, const FolderRecord& record,
                      const Cancellation* cancellation);

} // namespace FolderExamination
