#include "ZqDriveWalk.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/shared/ZqDriveWalk";
constexpr uint64 NAME_COST = 64; ///< bytes of memory beside the name itself

std::vector<uint64> unique(std::vector<uint64> inodes) {
    std::sort(inodes.begin(), inodes.end());
    inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
    return inodes;
}

} // namespace

SxException ZqDriveWalk::damage(const SxString& what, int line) const {
    return SxException("The file system in '" + reader->getName() + "' is damaged: " + what, UNIT, line);
}

void ZqDriveWalk::requireBlocks(uint64 firstRaw, uint64 count) const {
    const uint64 nRaw = reader->getSize() / ZqBlocks::SIZE;
    if (count <= nRaw && firstRaw <= nRaw - count) return;
    throw damage("blocks " + SxString(firstRaw) + " + " + count + " lie beyond its " + nRaw, __LINE__);
}

void ZqDriveWalk::takeBlocks(uint64 count) {
    nBlocks += count;
    if (nBlocks > reader->getSize() / ZqBlocks::SIZE)
        throw damage("its files take more blocks than it has", __LINE__);
}

void ZqDriveWalk::append(std::vector<Extent>* extents, const Extent& next) {
    if (next.count == 0) return;
    const bool joins = !extents->empty() && extents->back().first + extents->back().count == next.first;
    if (joins) {
        extents->back().count += next.count;
    } else {
        extents->push_back(next);
    }
}

void ZqDriveWalk::add(uint64 inode, Kind kind, std::string_view name) {
    if (!isName(name)) {
        throw damage("folder '" + pathIn(current, "") + "' has a name that is none", __LINE__);
    }
    const uint64 length = folders[current].pathLength + name.size();
    if (length > MAX_PATH) {
        throw damage(SxString("a path has more than ") + MAX_PATH + " bytes", __LINE__);
    }
    nBytes += NAME_COST + name.size();
    if (nBytes > most) throw damage("it has more names than a drive can have", __LINE__);
    if (kind == Kind::File) names.push_back({inode, current, std::string(name)});
    if (kind == Kind::Other) others.push_back(inode);
    if (kind != Kind::Folder) return;
    if (!entered.insert(inode)) {
        throw damage("folder '" + pathIn(current, std::string(name)) + "' has another name, too", __LINE__);
    }
    folders.push_back({inode, current, length + 1, std::string(name)});
}

void ZqDriveWalk::findNames() {
    folders.push_back({rootInode, 0, 0, ""});
    entered.insert(rootInode);
    // It grows on the way.
    for (current = 0; current < folders.size(); ++current)
        listFolder(folders[current].inode);
}

std::vector<uint64> ZqDriveWalk::getFiles() const {
    std::vector<uint64> inodes;
    inodes.reserve(names.size());
    for (const Name& name : names)
        inodes.push_back(name.inode);
    return unique(std::move(inodes));
}

std::vector<uint64> ZqDriveWalk::getOthers() const {
    return unique(others);
}

SxString ZqDriveWalk::pathIn(size_t folder, const std::string& name) {
    if (folder != lastFolder) {
        std::string path(folders[folder].pathLength, '/');
        for (size_t at = folder; at != 0; at = folders[at].parent) {
            const Folder& part = folders[at];
            path.replace(part.pathLength - 1 - part.name.size(), part.name.size(), part.name);
        }
        lastPath = std::move(path);
        lastFolder = folder;
    }
    return lastPath + name;
}

void ZqDriveWalk::visitFiles(const std::function<void(const File&)>& visit) {
    std::sort(names.begin(), names.end(), [](const Name& a, const Name& b) { return a.inode < b.inode; });
    for (size_t i = 0; i < names.size();) {
        const uint64 inode = names[i].inode;
        File file;
        for (; i < names.size() && names[i].inode == inode; ++i)
            file.paths.push_back(pathIn(names[i].folder, names[i].name));
        std::sort(file.paths.begin(), file.paths.end());
        readFile(inode, &file);
        visit(file);
    }
}
