#pragma once

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqLog.h"

#include <cstddef>
#include <cstdlib>

/// A folder, emptied for each case, that holds one file with the bytes of the case. In memory where the
/// system has such a place, since a case takes microseconds.
class RecordFile {
public:
    RecordFile(const char* name, const unsigned char* data, size_t size) {
        for (const SxFileInfo& old : SxFSAction::ls(folder()))
            SxFSAction::rm_r(old);
        SxFileIO(folder() + name, "wb").writeBuffer(data, static_cast<int64>(size));
    }

    SxString prefix() const { return folder(); }
    void put(const char* name, const SxString& bytes) const { SxFileIO(folder() + name, "wb").write(bytes); }
    bool holds(const char* name, const SxString& bytes) const {
        return SxFSAction::test_f(folder() + name) && SxFileIO::readUtf8(folder() + name) == bytes;
    }

private:
    /// Removed at the end of the program.
    struct Folder {
        Folder() {
            ZqLog::setSink([](const SxString&, const SxString&) {});
            std::string name =
                std::string(SxFSAction::test_d("/dev/shm") ? "/dev/shm" : "/tmp") + "/tavrin-fuzz-XXXXXX";
            if (!mkdtemp(name.data())) std::abort();
            path = name + "/";
        }
        ~Folder() { SxFSAction::rm_r(path); }
        SxString path;
    };

    static const SxString& folder() {
        static const Folder folder;
        return folder.path;
    }
};
