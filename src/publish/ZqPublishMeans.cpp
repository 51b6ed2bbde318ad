#include "ZqPublishMeans.h"

#include "SxException.h"
#include "ZqDiffTask.h"
#include "ZqTool.h"

#include <functional>

namespace {

ZqMeans tried(const char* name, const SxString& can, const std::function<void()>& require,
              const SxString& remedy) {
    try {
        require();
    } catch (const SxException& e) {
        return {name, false, false, can + " can't be made: " + e.toString(SxException::ShowMessage, ": "),
                remedy};
    }
    return {name, true, false, can + " can be made", {}};
}

} // namespace

SxList<ZqMeans> ZqPublishMeans::look() {
    struct Tool {
        const char *name, *package, *can;
    };
    SxList<ZqMeans> all;
    for (const Tool& each :
         {Tool{"mkfs.erofs", "erofs-utils", "EROFS images"}, Tool{"mke2fs", "e2fsprogs", "ext4 images"},
          Tool{"debugfs", "e2fsprogs", "ext4 images"},
          Tool{"mksquashfs", "squashfs-tools", "squashfs images"}}) {
        all << tried(
            each.name, each.can, [&] { (void)ZqTool(each.name, each.package); },
            SxString("install the package ") + each.package);
    }
    all << tried("hdiffz", "Patches", ZqDiffTask::requireTool,
                 "install the package tavrin again, or run 'make build' in its sources");
    return all;
}
