#include "DirectNote.h"

#include "Mounts.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqImageFiles.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cerrno>

using ZqDriveWire::Reader, ZqDriveWire::Writer;

namespace {

constexpr const char* UNIT = "src/driver/DirectNote";
/// A service of another version may note something else.
constexpr uint64 FORMAT = 1;

std::string fileIn(const SxString& folder) {
    return folder.str() + "/" + ZqServiceFolder::DIRECT;
}

} // namespace

void DirectNote::lookAt(const SxString& volume) {
    device = SxString();
    for (const Mounts::Mount& mount : Mounts::all()) {
        if (mount.at == volume.str()) device = mount.type == "erofs" ? SxString(mount.device) : SxString();
    }
    const std::string zqf = params.image.str() + "/" + ZqImageFiles::ZQF;
    SxStat info;
    const int error = SxOs::get().stat(zqf, &info);
    if (error < 0)
        throw SxException("Cannot look at '" + SxString(zqf) + "': " + SxOs::errorText(error), UNIT,
                          __LINE__);
    zqfDevice = info.device;
    zqfInode = info.inode;
}

void DirectNote::write(const SxString& folder) const {
    Writer out;
    out.number(FORMAT);
    params.write(&out);
    out.number(madeNs).number(static_cast<uint64>(mounterPid)).flag(ready).flag(isRedirected);
    out.text(device).text(readAhead).number(zqfDevice).number(zqfInode);
    SxFileIO::writeAtomic(SxString(fileIn(folder)), SxString(out.body()), 0600);
}

std::optional<DirectNote> DirectNote::readFitting(const SxString& folder) {
    const SxString file(fileIn(folder));
    if (!SxFSAction::test_f(file)) return {};
    SxFileIO in(file, "rb");
    std::string bytes(static_cast<size_t>(in.getSize()), '\0');
    bytes.resize(static_cast<size_t>(in.readBuffer(bytes.data(), in.getSize())));
    Reader reader(bytes);
    if (reader.number() != FORMAT) return {};
    DirectNote note;
    note.params = MountParams::read(&reader);
    note.madeNs = reader.number();
    note.mounterPid = static_cast<int64>(reader.number());
    note.ready = reader.flag();
    note.isRedirected = reader.flag();
    note.device = reader.text();
    note.readAhead = reader.text();
    note.zqfDevice = reader.number();
    note.zqfInode = reader.number();
    if (!reader.ok() || note.device.isEmpty()) return {};
    DirectNote now = note;
    try {
        now.lookAt(folder + "/" + ZqServiceFolder::VOLUME);
    } catch (const SxException&) {
        return {}; // the image has gone
    }
    const bool fits =
        now.device == note.device && now.zqfDevice == note.zqfDevice && now.zqfInode == note.zqfInode;
    return fits ? std::optional(note) : std::nullopt;
}
