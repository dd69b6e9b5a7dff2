#pragma once

#include "Cancellation.h"
#include "FolderRecord.h"
#include "HeldFolder.h"

/// Makes sure that a folder does not change between two moments.
///
/// Entries at the top with names that systems give to files of their own (`systemVolumeItems`) are
/// left out: they may change at any time. What cannot be read is left out, too; it cannot be copied
/// either. Both functions throw `VaultError` (verificationFailed) with the reason for the user,
/// also when a file is open for writing in another program, and `OperationCancelled`.
namespace FolderExamination {

/// What the folder's entries look like now. `cancellation` may be null.
FolderRecord record(const HeldFolder& folder, const Cancellation* cancellation);
/// Throws unless the folder is in its place, and it and each of its entries are as recorded.
void requireUnchanged(const HeldFolder& folder, const FolderRecord& record,
                      const Cancellation* cancellation);

} // namespace FolderExamination
