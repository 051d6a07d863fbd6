// The library's entry point. Its only task is to tell an unload by FreeLibrary from one by the
// process ending, before the static destructors of this image run (they run after it returns).
#include "support/ProcessExit.h"

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_DETACH) qv::NoteProcessDetach(reserved);
    return TRUE;
}
