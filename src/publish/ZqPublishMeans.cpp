#include "ZqPublishMeans.h"

#include "ZqDiffTask.h"
#include "ZqTool.h"

SxList<ZqMeans> ZqPublishMeans::look() {
    struct Tool {
        const char *name, *package, *can;
    };
    SxList<ZqMeans> all;
    for (const Tool& each :
         {Tool{"mkfs.erofs", "erofs-utils", "EROFS images"}, Tool{"mke2fs", "e2fsprogs", "ext4 images"},
          Tool{"debugfs", "e2fsprogs", "ext4 images"},
          Tool{"mksquashfs", "squashfs-tools", "squashfs images"}}) {
        const SxString remedy = SxString("install the package ") + each.package;
        all << ZqMeans::tried({each.name, true, false, SxString(each.can) + " can be made", {}},
                              {each.name, false, false, SxString(each.can) + " can't be made", remedy},
                              [&] { (void)ZqTool(each.name, each.package); });
    }
    all << ZqMeans::tried({"hdiffz", true, false, "Patches can be made", {}},
                          {"hdiffz", false, false, "Patches can't be made",
                           "install the package tavrin again, or run 'make build' in its sources"},
                          ZqDiffTask::requireTool);
    return all;
}
