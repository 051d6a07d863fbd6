#pragma once
// Deleting one of the plug-in's own files below a folder it was told about, and the log lines of
// what the file layer kept or could not check.
#include "support/FileUtil.h"
#include "support/FolderHandle.h"
#include "support/Log.h"
#include "sdk/StringT.h"

#include <memory>

namespace qv {

// One warning per note of the file layer, written in the name of `function`; of the entries of
// one folder whose identity the volume cannot answer, only the first is told.
inline file::NoteFn FileNotes(const wchar_t* function) {
    auto toldFolder = std::make_shared<StringW>();
    return [function, toldFolder](file::Note what, const StringW& path, DWORD error) {
        using logging::LOG_SEV_WARNING;
        switch (what) {
        case file::Note::LinkKept:
            logging::WriteMessage(LOG_SEV_WARNING, function, L"Link not followed, entry kept [path = %s]",
                                  path.c_str());
            break;
        case file::Note::EntryKept:
            logging::WriteMessage(LOG_SEV_WARNING, function, L"Entry kept [path = %s] [error = %d]", path.c_str(),
                                  static_cast<int>(error));
            break;
        case file::Note::ListingFailed:
            logging::WriteMessage(LOG_SEV_WARNING, function, L"Cannot list folder [path = %s] [error = %d]",
                                  path.c_str(), static_cast<int>(error));
            break;
        case file::Note::Undecided: {
            StringW folder(path);
            file::RemoveFileName(folder);
            if (folder.CompareNoCase(toldFolder->c_str()) == 0) break;
            *toldFolder = folder;
            logging::WriteMessage(LOG_SEV_WARNING, function,
                                  L"Identity not checkable on this volume, entries taken as opened [path = %s]",
                                  path.c_str());
            break;
        }
        }
    };
}

// The folders on the way and the file are opened below `base` without following a link and the
// file is deleted through its own handle: a link planted there leads out of the folder, and what
// it points to is not ours to delete. A link left alone is logged here; false with `error` when
// the file could not be deleted, which the caller reports in its own words.
inline bool DeleteFileBelowKeepingLinks(const wchar_t* function, const StringW& base, const wchar_t* relative,
                                        const StringW& shownPath, DWORD& error, const file::NoteFn& notes) {
    switch (file::DeleteFileBelow(base.c_str(), relative, error, notes)) {
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
