#include "DirectNote.h"

#include "Mounts.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqServiceFolder.h"

using ZqDriveWire::Reader, ZqDriveWire::Writer;

namespace {

/// To be raised where anything of the note changes, MountParams included. A drive with a note of another
/// format isn't taken over, but removed: that of a service which was killed before an update.
constexpr uint64 FORMAT = 1;

std::string fileIn(const SxString& folder) {
    return folder.str() + "/" + ZqServiceFolder::directName();
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

void DirectNote::remove(const SxString& folder) {
    SxOs::get().unlink(fileIn(folder));
}

std::optional<DirectNote> DirectNote::read(const SxString& file) {
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
    return reader.ok() ? std::optional(note) : std::nullopt;
}

std::optional<DirectNote> DirectNote::readFitting(const SxString& folder) {
    const SxString file(fileIn(folder));
    if (!SxFSAction::test_f(file)) return {};
    std::optional<DirectNote> note = read(file);
    const bool fits =
        note && !note->device.isEmpty() && deviceAt(folder + "/" + ZqServiceFolder::VOLUME) == note->device;
    return fits ? note : std::nullopt;
}

std::optional<DirectNote> DirectNote::readOther(const SxString& folder) {
    std::vector<std::string> names;
    SxOs::get().list(folder.str(), &names);
    for (const std::string& name : names) {
        // Not one that a service was killed while it wrote it.
        if (ZqServiceFolder::isDirectName(name) && name != ZqServiceFolder::directName())
            return read(SxString(folder.str() + "/" + name));
    }
    return {};
}
