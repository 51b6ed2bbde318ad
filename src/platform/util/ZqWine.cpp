#include "ZqWine.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqSysEnv.h"

#include <cstdlib>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqWine";
/// Longest run of one command. The first in a new prefix, or after an update of Wine, takes some 10 s.
constexpr int64 LIMIT_MS = 120'000;
/// Largest export that is taken.
constexpr int64 MAX_EXPORT = 256 << 20;
constexpr const char* EXCHANGE_FILE = "/tavrin-registry.exchange.reg";
/// A file of the prefix with the name of the server's folder, where that isn't the usual one.
constexpr const char* SERVER_NAME_FILE = "/wineserver";

/// Folders in which the server may have made its own.
std::vector<std::string> serverBases(const SxString& prefix) {
    // Wine serves a prefix for its owner alone, who needn't be the user of this program.
    SxStat info;
    const bool isKnown = SxOs::get().stat(prefix.str(), &info) == 0;
    std::vector<std::string> bases = {"/tmp/.wine-" + std::to_string(isKnown ? info.owner : geteuid())};
    // Debian's Wine has a folder of a random name in there, which it notes in the prefix.
    if (SxFSAction::test_f(prefix + SERVER_NAME_FILE)) {
        const SxString name = SxFileIO::readUtf8(prefix + SERVER_NAME_FILE).left("\n");
        const char* temporary = std::getenv("TMPDIR");
        if (name.find("/") < 0) {
            bases.push_back("/tmp/" + name.str());
            if (temporary && temporary[0] == '/') bases.push_back(temporary + ("/" + name.str()));
        }
    }
    return bases;
}

bool isHeld(const std::string& lockFile) {
    SxOs& os = SxOs::get();
    const int fd = os.open(lockFile, SxOs::Read, 0);
    if (fd < 0) return false;
    const bool held = os.isLocked(fd, 0, 1, SxOs::Lock::Exclusive) == 1;
    os.close(fd);
    return held;
}

/// Runs `wine reg` and gives its exit code.
int runReg(const SxString& prefix, SxList<SxString> arguments) {
    SxList<SxString> words = {"WINEPREFIX=" + prefix, "WINEDEBUG=-all", "wine", "reg"};
    words << arguments << SxString("/reg:64");
    // Not one that is killed with us: half an edit would stay in the prefix.
    SxProcess process("env", words, SxProcess::Silent);
    process.start();
    if (!SxWait::pass(LIMIT_MS, [&] { return !process.isRunning(); })) {
        process.kill();
        process.wait();
        throw SxException(SxString("'wine reg ") + arguments.first() + "' didn't end within " +
                              LIMIT_MS / 1000 + " s",
                          UNIT, __LINE__);
    }
    return process.wait();
}

/// The exit code is the same for a key that isn't there and for a Wine that doesn't work.
void requireAnswer(const SxString& prefix) {
    const int code = runReg(prefix, {"query", "HKEY_LOCAL_MACHINE"});
    if (code == 0) return;
    throw SxException("'wine reg query HKEY_LOCAL_MACHINE' fails with exit code " + SxString(code), UNIT,
                      __LINE__);
}

/// The file as Wine is told of it.
SxString unixName(const SxString& file) {
    return "\\\\?\\unix" + file.substitute("/", "\\");
}

/// The file that is exchanged with Wine; never one that was left by another run.
class ExchangeFile {
public:
    explicit ExchangeFile(const SxString& prefix) : path(prefix + EXCHANGE_FILE) { remove(); }
    ~ExchangeFile() { remove(); }
    ExchangeFile(const ExchangeFile&) = delete;
    ExchangeFile& operator=(const ExchangeFile&) = delete;

    const SxString path;

private:
    void remove() const { SxOs::get().unlink(path.str()); }
};

} // namespace

bool ZqWine::isServing(const SxString& prefix) {
    SxStat info;
    if (SxOs::get().stat(prefix.str(), &info) < 0) return false;
    const SxString folder =
        SxString::sprintf("/server-%jx-%jx/lock", uintmax_t{info.device}, uintmax_t{info.inode});
    for (const std::string& base : serverBases(prefix)) {
        if (isHeld(base + folder.str())) return true;
    }
    return false;
}

bool ZqWine::isInstalled() {
    return ZqSysEnv::isProgram("wine");
}

std::optional<std::string> ZqWine::exportKey(const SxString& prefix, const SxString& key) {
    const ExchangeFile file(prefix);
    const int code = runReg(prefix, {"export", key, unixName(file.path), "/y"});
    if (code == 0) return SxFileIO::readUtf8(file.path, MAX_EXPORT).str();
    requireAnswer(prefix);
    return std::nullopt;
}

bool ZqWine::hasKey(const SxString& prefix, const SxString& key) {
    if (runReg(prefix, {"query", key}) == 0) return true;
    requireAnswer(prefix);
    return false;
}

void ZqWine::importKeys(const SxString& prefix, const std::string& text) {
    const ExchangeFile file(prefix);
    SxFileIO output;
    output.create(file.path);
    output.write(SxString(text));
    output.close();
    const int code = runReg(prefix, {"import", unixName(file.path)});
    if (code != 0)
        throw SxException("'wine reg import' fails with exit code " + SxString(code), UNIT, __LINE__);
}
