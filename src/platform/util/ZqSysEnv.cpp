#include "ZqSysEnv.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxMutex.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"
#include "ZqProgram.h"
#include "ZqXdg.h"

#include <array>
#include <cerrno>
#include <pwd.h>
#include <sys/random.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqSysEnv";
constexpr const char* A_SCHEMA = "zqapp-schema.json";
// Keeps the result apart from what other programs make of the same machine id.
constexpr const char* MACHINE_ID_SALT = "tavrin machine id:";

[[maybe_unused]] const bool machineRootInstalled = ZqMachineRoot::install();

/// A folder that a client can set.
class FolderSetting {
public:
    SxString get() {
        SxMutexBlock lock(&mutex);
        return folder;
    }
    void set(const SxString& path) {
        SxMutexBlock lock(&mutex);
        folder = path;
    }

private:
    SxMutex mutex;
    SxString folder SX_GUARDED_BY(mutex);
};

FolderSetting& schemaFolder() {
    static FolderSetting setting;
    return setting;
}

FolderSetting& toolFolder() {
    static FolderSetting setting;
    return setting;
}

SxString programFolder() {
    std::string program;
    const int result = SxOs::get().readLink("/proc/self/exe", &program);
    if (result < 0)
        throw SxException("Cannot find the program's folder: " + SxOs::errorText(result), UNIT, __LINE__);
    return program.substr(0, program.rfind('/'));
}

SxString parentFolder(const SxString& path) {
    const std::string& text = path.str();
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : SxString(text.substr(0, slash));
}

} // namespace

int64 ZqSysEnv::getSysTime() {
    return SxClock::get().systemMs();
}

SxString ZqSysEnv::getTimestamp() {
    return SxTime::strftime("%Y-%m-%dT%H:%M:%S");
}

SxString ZqSysEnv::getSysPath(Path kind) {
    SxString user = "C:/users/" + SxString(zqUserName());
    switch (kind) {
    case Windows:
        return "C:/windows";
    case System:
        return "C:/windows/system32";
    case ProgramFiles:
        return "C:/Program Files";
    case ProgramFilesX86:
        return "C:/Program Files (x86)";
    case CommonAppData:
        return "C:/ProgramData";
    case UserProfile:
        return user;
    case RoamingAppData:
        return user + "/AppData/Roaming";
    case LocalAppData:
        return user + "/AppData/Local";
    }
    throw SxException("There is no system folder of kind " + SxString(static_cast<int>(kind)), UNIT,
                      __LINE__);
}

SxString ZqSysEnv::getSchemaPath() {
    SxString set = schemaFolder().get();
    if (!set.isEmpty()) return set;
    const SxString beside = parentFolder(programFolder()) + "/share/tavrin/schemas/";
    for (const SxString& folder : {beside, SxString(TAVRIN_SCHEMA_DIR_INSTALL)}) {
        if (SxFSAction::test_f(folder + A_SCHEMA)) return folder;
    }
    return TAVRIN_SCHEMA_DIR_BUILD;
}

void ZqSysEnv::setSchemaPath(const SxString& path) {
    schemaFolder().set(path.isEmpty() || path.endsWith("/") ? path : path + "/");
}

SxString ZqSysEnv::getRTERootDir() {
    SxString set = toolFolder().get();
    if (!set.isEmpty()) return set;
    const SxString program = programFolder();
    const SxString beside = parentFolder(program) + "/lib/tavrin";
    return SxFSAction::test_d(beside) ? beside : program;
}

void ZqSysEnv::setRTERootDir(const SxString& path) {
    toolFolder().set(path);
}

SxString ZqSysEnv::getRTEVersion() {
    return TAVRIN_VERSION;
}

SxString ZqSysEnv::getMachineId() {
    for (const char* file : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        if (!SxFSAction::test_f(file)) continue;
        const SxList<SxString> lines = SxFileIO::readLines(file, 1);
        if (lines.getSize() > 0 && !lines.first().isEmpty())
            return SxMd5::get(MACHINE_ID_SALT + lines.first());
    }
    return "";
}

SxString ZqSysEnv::getUserId() {
    return SxString(geteuid());
}

SxString ZqSysEnv::getUserName(int64 id) {
    struct passwd entry = {};
    struct passwd* found = nullptr;
    std::array<char, 16384> buffer{};
    if (::getpwuid_r(static_cast<uid_t>(id), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        return SxString(found->pw_name);
    return SxString(id);
}

bool ZqSysEnv::isProgram(const SxString& name) {
    return ZqProgram::isThere(name);
}

SxString ZqSysEnv::getNewGUID() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw SxException("Cannot get random bytes: " + SxOs::errorText(errno), UNIT, __LINE__);
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
    SxString text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += "-";
        text += SxString::sprintf("%02X", static_cast<unsigned>(bytes[i]));
    }
    return text;
}

uint64 ZqSysEnv::getFreeDiskSpace(const SxString& path) {
    return static_cast<uint64>(SxFSAction::freeSpace(path));
}

void ZqSysEnv::truncateFile(const SxString& path, int64 size) {
    SxFileIO file(path, "r+b");
    file.truncate(size);
    file.close();
}

SxString ZqSysEnv::unifySlashes(const SxString& path) {
    return path.substitute("\\", "/");
}

SxString ZqSysEnv::unifyBackslashes(const SxString& path) {
    return path.substitute("/", "\\");
}

void ZqSysEnv::logProgress(uint64 done, uint64 total, int64 t0, const SxString& name, const SxString& text) {
    const double seconds = static_cast<double>(getSysTime() - t0) / 1000.0;
    const double part = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0.0;
    SxString line = name + " " + text + ": " + SxString::sprintf("%.1f %%, %.1f s", part * 100.0, seconds);
    if (part > 0.0 && part < 1.0) line += SxString::sprintf(", ETA %.0f s", seconds / part - seconds);
    zqLogMsg("base", line);
}
