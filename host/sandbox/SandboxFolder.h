#pragma once
// The sandbox folder: an installation of the security service laid out on real files, and the
// means to see which files a step created, deleted or changed.
//   <root>\engines\...        engines folder ("scansp", category 2), "Plugins\update.txt"
//   <root>\signatures\<name>  signature folders ("signaturesPatterns" = <root>\signatures\*)
//   <root>\common\installer   the scan cache ("common")
//   <root>\temp\scansp        core temp folder ("scansp", category 17); its siblings are leftovers
//   <root>\kits\<name>        engines kits that the update plug-in installs
//   <root>\host\              settings file, telemetry lines and log of the host (not tracked)
#include "host/RemoveTree.h"
#include "host/sandbox/Scenario.h"

#include <map>
#include <string>
#include <vector>

namespace sandbox {

struct SandboxLayout {
    std::wstring root; // no trailing backslash
    std::wstring engines;
    std::wstring signatures;
    std::wstring common;
    std::wstring coreTemp;
    std::wstring kits;
    std::wstring hostFolder;
    std::wstring settingsFile;
    std::wstring telemetryFile;
    std::wstring logFile;

    // Replaces {sandbox}, {engines}, {signatures}, {common}, {coretemp} and {kits}.
    std::wstring Expand(const std::wstring& text) const;
    std::wstring Absolute(const std::wstring& relative) const;
    // Relative to the root when inside it (case-insensitive), else unchanged.
    std::wstring Relative(const std::wstring& path) const;
};

// A fresh folder under the temporary folder.
bool MakeTemporaryRoot(std::wstring& root, std::string& error);
// A folder given by the user: created when absent, refused when it holds anything.
bool PrepareGivenRoot(const std::wstring& folder, std::wstring& root, std::string& error);

SandboxLayout LayOut(const std::wstring& root, const Scenario& scenario);
// Writes every folder and file the scenario asks for, and the initial settings file.
bool Populate(const SandboxLayout& layout, const Scenario& scenario, std::string& error);

bool CreateFolders(const std::wstring& folder);
bool WriteFileText(const std::wstring& path, const std::string& bytes);
bool ReadFileText(const std::wstring& path, std::string& bytes);
// Copies every file under `from` into `to`, replacing files of the same name.
bool CopyTree(const std::wstring& from, const std::wstring& to, std::vector<std::wstring>& copied, std::string& error);
using host::RemoveTree;
bool FileExists(const std::wstring& path);
bool FileSize(const std::wstring& path, uint64_t& size);

// The signatures version and count from a folder's "Plugins\update.txt" (line 4's and line 2's
// last word), as the update plug-in reports them after an installation.
bool ReadUpdateFile(const std::wstring& enginesFolder, std::wstring& version, int64_t& count);

struct FileEntry {
    bool folder = false;
    uint64_t size = 0;
    uint64_t written = 0;
    uint64_t hash = 0; // of the content, for files up to 1 MB
};
// Relative path -> entry; folders end in "\". The host folder is left out.
using FileSnapshot = std::map<std::wstring, FileEntry>;

struct FileChanges {
    std::vector<std::wstring> created, deleted, changed;
    bool Empty() const { return created.empty() && deleted.empty() && changed.empty(); }
};

FileSnapshot TakeSnapshot(const SandboxLayout& layout);
FileChanges CompareSnapshots(const FileSnapshot& before, const FileSnapshot& after);

} // namespace sandbox
