#pragma once
// The file-call table of the seam build of the plug-in (AntivirusScanSeam.AL, tests/seam/): every
// call the plug-in's file layer makes is recorded with its flags, and the documented answers of a
// volume that Wine does not have are played over Wine's own.
#include <windows.h>

#include <string>
#include <vector>

namespace testing_support {

// One call made through the table.
struct FileCall {
    std::string kind;      // "NtCreateFile", "CreateFileW", "LoadLibraryExW", "SetInfo"
    std::wstring name;     // the name (relative) or path it was given
    DWORD access = 0;      // desired access
    DWORD flags = 0;       // create options; CreateFileW's flags and attributes; LoadLibraryExW's
                           // flags; the information class of SetInfo
    DWORD objectFlags = 0; // OBJECT_ATTRIBUTES.Attributes of NtCreateFile
    DWORD disposition = 0; // NtCreateFile's disposition; the disposition flags of SetInfo
};

// What a volume answers, where it differs from Wine. Names decide which entries some traits touch:
// "cloud*" are placeholders, and the names in `pending` are being deleted by someone else.
struct VolumePlay {
    enum class Dispose { ClassicOnly, PosixWithoutReadOnlyFlag, Posix };
    Dispose dispose = Dispose::ClassicOnly;
    DWORD unknownRequest = ERROR_INVALID_PARAMETER; // what a refused disposition request answers
    bool noIdListing = false;                       // listing classes with ids refused
    bool noDots = false;                            // no "." and ".." entries
    bool offsetIds = false;                         // ids are entry offsets, no FileIdInfo
    bool wideIds = false;                           // 64-bit ids -1, 128-bit ones in FileIdInfo and the listing
    bool noFinalName = false;                       // GetFinalPathNameByHandleW fails
    bool cloud = false;                             // "cloud*" carry a reparse tag that is no name surrogate
    int sharingViolations = 0;                      // per name opened for deletion, before it opens
    std::vector<std::wstring> pending;              // names that answer delete pending (and go)
    int notEmpty = 0;                               // per folder deleted, "directory not empty" answers first
    bool noWriteAttributes = false;                 // the ACL grants no FILE_WRITE_ATTRIBUTES
    std::wstring mountedAt;                         // GetVolumePathNameW finds a volume mounted at this folder
    std::wstring refuseListing;                     // a folder of this name cannot be listed (access denied)
    std::wstring refuseDelete;                      // an entry of this name cannot be deleted (access denied)
    bool noDontReparse = false;                     // OBJ_DONT_REPARSE refused as an invalid parameter (before 1607)
};

// Installs the table in the loaded seam plug-in on construction, and the system's again on
// destruction. One at a time.
class FileSeam {
public:
    FileSeam();
    ~FileSeam();
    bool Installed() const { return installed; }
    void Play(const VolumePlay& play);
    std::vector<FileCall> Calls() const;
    void Clear();
    int Sleeps() const;
    DWORD LongestSleep() const; // in milliseconds

private:
    bool installed = false;
};

// Folder of the test program, where the seam plug-in is built.
std::wstring SeamPluginPath();

} // namespace testing_support
