#include "ZqRootOwner.h"

#include "SxMutex.h"
#include "SxOs.h"
#include "SxProcessInfo.h"

#include <string>

namespace {

struct Kept {
    SxMutex mutex;
    std::string prefix SX_GUARDED_BY(mutex); ///< of the paths in the root
};

Kept& kept() {
    static Kept k;
    return k;
}

bool ownerOf(const std::string& path, uint32* owner, uint32* group) {
    {
        Kept& k = kept();
        const SxMutexBlock block(&k.mutex);
        if (!path.starts_with(k.prefix)) return false;
    }
    SxStat folder;
    const size_t slash = path.rfind('/');
    // The machine's own, since it is asked from inside its operations.
    if (SxOs::machine().stat(path.substr(0, slash), &folder) < 0 || folder.owner == 0) return false;
    *owner = folder.owner;
    *group = folder.group;
    return true;
}

} // namespace

void ZqRootOwner::keep(const SxString& root) {
    if (SxProcessInfo::ownUser() != 0) return;
    {
        Kept& k = kept();
        const SxMutexBlock block(&k.mutex);
        k.prefix = root.str() + "/";
    }
    SxOs::setOwnerHook(&ownerOf);
}
