#include "DirectNote.h"

#include "Mounts.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqServiceFolder.h"

using ZqDriveWire::Reader, ZqDriveWire::Writer;

namespace {

/// A service of another version may note something else.
constexpr uint64 FORMAT = 1;

std::string fileIn(const SxString& folder) {
    return folder.str() + "/" + ZqServiceFolder::DIRECT;
}

} // namespace

SxString DirectNote::deviceAt(const SxString& volume) {
    SxString found;
    for (const Mounts::Mount& mount : Mounts::all()) {
        if (mount.at == volume.str()) found = mount.type == "erofs" ? SxString(mount.device) : SxString();
    }
    return found;
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
    const bool fits = reader.ok() && !note.device.isEmpty() &&
                      deviceAt(folder + "/" + ZqServiceFolder::VOLUME) == note.device;
    return fits ? std::optional(note) : std::nullopt;
}
