#include "ImageFolder.h"

#include "SxException.h"

#include <cerrno>

namespace {

constexpr const char* UNIT = "src/driver/ImageFolder";

void require(int status, const SxString& what, int line) {
    if (status < 0) throw SxException(SxException(SxOs::errorText(status), UNIT, line), what, UNIT, line);
}

} // namespace

ImageFolder::ImageFolder(const std::string& path_)
    : path(path_),
      fd(SxOs::get().open(path_, SxOs::Read | SxOs::Directory, 0)) {
    require(fd, "Cannot open folder '" + SxString(path) + "'", __LINE__);
}

ImageFolder::~ImageFolder() {
    SxOs::get().close(fd);
}

bool ImageFolder::isGone(const char* name) const {
    SxStat info;
    const int status = SxOs::get().lstatIn(fd, name, &info);
    if (status == -ENOENT) return true;
    require(status, "Cannot look at '" + SxString(path) + name + "'", __LINE__);
    return false;
}

bool ImageFolder::holds(const DriveFile& file, const char* name) const {
    SxStat own, named;
    return SxOs::get().statFd(file.getFd(), &own) == 0 && SxOs::get().lstatIn(fd, name, &named) == 0 &&
           own.device == named.device && own.inode == named.inode;
}

void ImageFolder::open(DriveFile* file, const char* name, unsigned flags) const {
    file->openIn(fd, path + name, flags);
}
