#pragma once
// Deleting one of the plug-in's own files below a folder it was told about.
#include "support/FolderHandle.h"
#include "support/Log.h"
#include "sdk/StringT.h"

namespace qv {

// The folders on the way and the file are opened below `base` without following a link and the
// file is deleted through its own handle: a link planted there leads out of the folder, and what
// it points to is not ours to delete. A link left alone is logged here; false with `error` when
// the file could not be deleted, which the caller reports in its own words.
inline bool DeleteFileBelowKeepingLinks(const wchar_t* function, const StringW& base, const wchar_t* relative,
                                        const StringW& shownPath, DWORD& error) {
    switch (file::DeleteFileBelow(base.c_str(), relative, error)) {
    case file::EntryResult::Done:
    case file::EntryResult::Absent:
        break;
    case file::EntryResult::NotFollowed:
        logging::WriteMessage(logging::LOG_SEV_WARNING, function, L"Link not followed, file kept [path = %s]",
                              shownPath.c_str());
        break;
    case file::EntryResult::Failed:
        return false;
    }
    return true;
}

} // namespace qv
