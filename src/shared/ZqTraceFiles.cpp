#include "ZqTraceFiles.h"

#include "SxTemporaryFile.h"

bool ZqTraceFiles::isRest(const SxString& name) {
    if (name == SOURCES || name == LOCK) return true;
    for (const char* file : {ITEMS, RECORD, SOURCES}) {
        // Former versions wrote under the second name.
        if (SxTemporaryFile::isName(name, file) || name == SxString(file) + ".tmp") return true;
    }
    return false;
}

bool ZqTraceFiles::isOwn(const SxString& name) {
    return name == ITEMS || name == RECORD || isRest(name);
}
