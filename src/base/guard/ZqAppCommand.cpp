#include "ZqAppCommand.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "ZqMachineRoot.h"
#include "ZqSysEnv.h"
#include "ZqWine.h"

#include <cstdlib>

namespace {

constexpr const char* UNIT = "src/base/ZqAppCommand";

bool hasDriveLetter(const SxString& text) {
    const std::string& t = text.str();
    const auto isLetter = [](char c) { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; };
    return t.size() > 1 && t[1] == ':' && isLetter(t[0]) && (t.size() == 2 || t[2] == '/' || t[2] == '\\');
}

/// A path on a drive in the drive's own spelling, with backslashes. Any other path keeps its slashes, since
/// backslashes would be parts of names there.
SxString resolve(const SxString& text, const SxString& drive, const SxString& mark) {
    const SxString path = text.substitute(mark, drive);
    return hasDriveLetter(path) ? ZqSysEnv::unifyBackslashes(path) : path;
}

/// The folder of a program, with its separator; empty for a name that is looked for in $PATH.
SxString folderOf(const SxString& program) {
    const size_t end = program.str().rfind(hasDriveLetter(program) ? '\\' : '/');
    return end == std::string::npos ? SxString() : SxString(program.str().substr(0, end + 1));
}

/// A setting of a variable that is a list of paths: what it has now, and one more.
SxString extended(const SxString& name, const SxString& path) {
    const char* now = std::getenv(name.ascii());
    return name + "=" + (now && *now ? now + (":" + path) : path);
}

/// What a runner's container has to know of the drive. The first is of Steam's tools, the second of their
/// container itself, for runners that set the first one anew.
SxList<SxString> settingsFor(const ZqAppRunner& runner) {
    return {extended("STEAM_COMPAT_MOUNTS", runner.mountPath),
            extended(runner.isWritable ? "PRESSURE_VESSEL_FILESYSTEMS_RW" : "PRESSURE_VESSEL_FILESYSTEMS_RO",
                     runner.mountPath)};
}

/// The drive as a program of this system knows it.
SxString hostDrive(const SxString& drive) {
    if (!hasDriveLetter(drive)) return drive;
    std::string folder = SxOs::hostPath(drive);
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder;
}

/// The parameters have the arguments as one text with blanks. Where that is the record's, the record's list
/// is taken: the text would cut an argument that holds a blank.
SxList<SxString> argumentsOf(const ZqAppParams& app, const SxWinProcParams& procParams, const SxString& drive,
                             const SxString& mark) {
    const bool isRecords = procParams.args == SxString::join(app.args, " ");
    SxList<SxString> arguments;
    for (const SxString& argument : isRecords ? app.args : procParams.args.tokenize(' '))
        arguments << argument.substitute(mark, drive);
    return arguments;
}

} // namespace

bool ZqAppCommand::isWindowsProgram(const SxString& program) {
    return program.changeCase(false).endsWith(".exe");
}

ZqAppCommand::ZqAppCommand(const ZqAppParams& app, const SxString& drive, const SxString& mark,
                           SxWinProcParams procParams, const ZqAppRunner& runner_)
    : cmd(app.cmd),
      runner(runner_.program) {
    procParams.path = resolve(procParams.path, drive, mark);
    procParams.workDir =
        procParams.workDir.isEmpty() ? folderOf(procParams.path) : resolve(procParams.workDir, drive, mark);
    SxString program = procParams.path;
    SxList<SxString> arguments;
    if (isWindowsProgram(program)) {
        needsWine = program;
        arguments << "WINEPREFIX=" + ZqMachineRoot::get();
        if (!runner.isEmpty()) arguments << settingsFor(runner_);
        arguments << (runner.isEmpty() ? SxString("wine") : runner) << program
                  << argumentsOf(app, procParams, drive, mark);
        program = "env";
    } else {
        arguments = argumentsOf(app, procParams, hostDrive(drive), mark);
    }
    process = SxPtr<SxProcess>::create(program, arguments);
    process->setWorkingDirectory(procParams.workDir);
    process->setWinProcParams(procParams);
}

void ZqAppCommand::requireMeans(const SxString& windowsProgram, const SxString& runner) {
    const bool isThere = runner.isEmpty() ? ZqWine::isInstalled() : ZqSysEnv::isProgram(runner);
    // `env`, which hands the variables on, takes such a name for one of them.
    const bool isOdd = runner.find("=") >= 0;
    if (isThere && !isOdd) return;
    const SxString begin = "'" + windowsProgram.makeVisible() + "' is a Windows program, and there is no ";
    if (runner.isEmpty()) {
        throw SxException(begin + "wine to run it with: install Wine, or name another program for that with "
                                  "--runner",
                          UNIT, __LINE__);
    }
    throw SxException(begin + "program '" + runner.makeVisible() + "' to run it with" +
                          (isOdd ? ", whose name must hold no '='" : "") +
                          ": give --runner the name or the path of one that is there",
                      UNIT, __LINE__);
}

void ZqAppCommand::requirePossible(const SxString& cmd, const SxString& mark) {
    const SxString begin = "The command of the application (\"cmd\" in its app.json) ";
    constexpr const char* REMEDY =
        "; its publisher has to put that right, and 'tavrin mount' makes the drive "
        "without it";
    if (cmd.isEmpty()) throw SxException(begin + "is empty" + REMEDY, UNIT, __LINE__);
    if (cmd.find(mark) >= 0) return;
    bool isThere = true;
    if (!isWindowsProgram(cmd)) {
        isThere = ZqSysEnv::isProgram(hasDriveLetter(cmd) ? SxString(SxOs::hostPath(cmd.str())) : cmd);
    } else if (hasDriveLetter(cmd)) {
        // Wine makes what it brings itself when it makes the prefix.
        isThere = SxFSAction::test_f(cmd) || !SxFSAction::test_d(ZqSysEnv::getSysPath(ZqSysEnv::Windows));
    }
    if (isThere) return;
    throw SxException(
        begin + "is '" + cmd.makeVisible() +
            "', and this machine has no such program: install it, or, where it is the title's own, have its "
            "publisher name it as one of the drive's ({{ZQDRIVE}}/...)",
        UNIT, __LINE__);
}

void ZqAppCommand::start() {
    try {
        if (!needsWine.isEmpty()) {
            requireMeans(needsWine, runner);
            const bool isPath = needsWine.find("/") >= 0 || needsWine.find("\\") >= 0;
            if (isPath && !SxFSAction::test_f(needsWine))
                throw SxException("There is no program '" + needsWine.makeVisible() + "'", UNIT, __LINE__);
        }
        process->start();
    } catch (const SxException& e) {
        throw SxException(
            e,
            "The application can't be started by the command '" + cmd.makeVisible() +
                "' of its app.json; where the image lacks that program its publisher has to put "
                "it right",
            UNIT, __LINE__)
            .tagged(NOT_STARTED);
    }
}
