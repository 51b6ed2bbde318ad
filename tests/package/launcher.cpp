// A launcher outside of the source tree: makes an image of a folder, mounts it, reads a file from the drive,
// and takes the drive away.
//
//     launcher IMAGE SOURCE FILE

#include <tavrin/SxException.h>
#include <tavrin/ZqBlocks.h>
#include <tavrin/ZqImageBuild.h>
#include <tavrin/ZqImageParams.h>
#include <tavrin/ZqMountMgr.h>
#include <tavrin/ZqVolume.h>

#include <fstream>
#include <iostream>

namespace {

void build(const SxString& image, const SxString& source, const SxString& file) {
    ZqImageBuild::Options options;
    options.cmd = file;
    ZqImageBuild job(image, source, options);
    job.start();
    job.wait();
    if (job.hasException()) throw job.getException();
}

void print(const SxString& image, const SxString& file) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) throw SxException("no disk", "launcher", __LINE__);
    std::ifstream in((disk.mountPath + "/TAVRIN-protected/app/" + file).str());
    std::cout << in.rdbuf();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const SxString image(argv[1]), source(argv[2]), file(argv[3]);
    try {
        build(image, source, file);
        const ZqImageParams params(image + "/");
        const auto size = static_cast<uint64>(params.sizeRaw);
        ZqMountMgr drives;
        drives.mountImageZQF(ZqMountMgr::ReadOnly, params.deviceMode, image, size, ZqBlocks::SIZE,
                             size / ZqBlocks::SIZE, false, "", "");
        print(image, file);
        drives.umountImage(image, false);
        return 0;
    } catch (const SxException& e) {
        std::cerr << e.toString(SxException::ShowMessage, "\n  ").ascii() << "\n";
        return 1;
    }
}
