#include "ZqProgram.h"

#include "SxFSAction.h"

#include <cstdlib>
#include <unistd.h>

namespace {

bool canStart(const SxString& path) {
    return SxFSAction::test_f(path) && ::access(SxOs::hostPath(path).c_str(), X_OK) == 0;
}

} // namespace

bool ZqProgram::isThere(const SxString& name) {
    if (name.find("/") >= 0) return canStart(name);
    const char* folders = std::getenv("PATH");
    for (const SxString& folder : SxString(folders ? folders : "/usr/bin:/bin").tokenize(':')) {
        if (canStart(folder + "/" + name)) return true;
    }
    return false;
}
