#include "DirectNote.h"

#include "Mounts.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqServiceFolder.h"

using ZqDriveWire::Reader, ZqDriveWire::Writer;

namespace {

constexpr const char* UNIT = "src/driver/DirectNote";
/// To be raised where anything of the note changes, MountParams included. A drive with a note of another
/// format isn't taken over: that of a service which was killed before an update.
constexpr uint64 FORMAT = 2;

std::string fileIn(const SxString& folder) {
    return folder.str() + "/" + ZqServiceFolder::directName();
}

/// Empty where there is none.
SxString fileElsewhere(const SxString& folder) {
    std::vector<std::string> names;
    SxOs::get().list(folder.str(), &names);
    for (const std::string& name : names) {
        // Not one that a service was killed while it wrote it.
        if (ZqServiceFolder::isDirectName(name) && name != ZqServiceFolder::directName())
            return folder + "/" + SxString(name);
    }
    return {};
}

void writeFile(const DirectNote::File& file, Writer* out) {
    out->number(file.device).number(file.inode);
    out->number(static_cast<uint64>(file.size)).number(static_cast<uint64>(file.modifiedNs));
}

DirectNote::File readFile(Reader* in) {
    DirectNote::File file;
    file.device = in->number();
    file.inode = in->number();
    file.size = static_cast<int64>(in->number());
    file.modifiedNs = static_cast<int64>(in->number());
    return file;
}

} // namespace

DirectNote::File DirectNote::File::of(const SxStat& info) {
    return {info.device, info.inode, info.size, info.modifiedNs};
}

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
    out.text(device).text(readAhead).number(nIncluded);
    for (const File& file : {zqf, idx})
        writeFile(file, &out);
    SxFileIO::writeAtomic(SxString(fileIn(folder)), SxString(out.body()), 0600);
}

void DirectNote::remove(const SxString& folder) {
    SxOs::get().unlink(fileIn(folder));
}

DirectNote DirectNote::read(const SxString& file) {
    SxFileIO in(file, "rb");
    std::string bytes(static_cast<size_t>(in.getSize()), '\0');
    bytes.resize(static_cast<size_t>(in.readBuffer(bytes.data(), in.getSize())));
    Reader reader(bytes);
    DirectNote note;
    const bool isKnown = reader.number() == FORMAT;
    if (isKnown) {
        note.params = MountParams::read(&reader);
        note.madeNs = reader.number();
        note.mounterPid = static_cast<int64>(reader.number());
        note.ready = reader.flag();
        note.isRedirected = reader.flag();
        note.device = reader.text();
        note.readAhead = reader.text();
        note.nIncluded = reader.number();
        note.zqf = readFile(&reader);
        note.idx = readFile(&reader);
    }
    if (isKnown && reader.ok() && !note.device.isEmpty()) return note;
    throw SxException("The note '" + file + "' is damaged, or of another version", UNIT, __LINE__);
}

bool DirectNote::exists(const SxString& folder) {
    return SxFSAction::test_f(SxString(fileIn(folder)));
}

DirectNote DirectNote::readFitting(const SxString& folder) {
    DirectNote note = read(SxString(fileIn(folder)));
    const SxString volume = folder + "/" + ZqServiceFolder::VOLUME;
    if (deviceAt(volume) == note.device) return note;
    throw SxException("Something else is mounted at '" + volume + "'", UNIT, __LINE__);
}

bool DirectNote::existsElsewhere(const SxString& folder) {
    return !fileElsewhere(folder).isEmpty();
}

DirectNote DirectNote::readElsewhere(const SxString& folder) {
    return read(fileElsewhere(folder));
}
