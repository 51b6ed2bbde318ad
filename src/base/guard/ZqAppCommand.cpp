#include "ZqAppCommand.h"

#include "SxException.h"
#include "SxOs.h"
#include "ZqMachineRoot.h"
#include "ZqSysEnv.h"
#include "ZqWine.h"

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

bool isWindowsProgram(const SxString& program) {
    return program.changeCase(false).endsWith(".exe");
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

ZqAppCommand::ZqAppCommand(const ZqAppParams& app, const SxString& drive, const SxString& mark,
                           SxWinProcParams procParams) {
    procParams.path = resolve(procParams.path, drive, mark);
    procParams.workDir =
        procParams.workDir.isEmpty() ? folderOf(procParams.path) : resolve(procParams.workDir, drive, mark);
    SxString program = procParams.path;
    SxList<SxString> arguments;
    if (isWindowsProgram(program)) {
        needsWine = program;
        arguments << "WINEPREFIX=" + ZqMachineRoot::get() << SxString("wine") << program
                  << argumentsOf(app, procParams, drive, mark);
        program = "env";
    } else {
        arguments = argumentsOf(app, procParams, hostDrive(drive), mark);
    }
    process = SxPtr<SxProcess>::create(program, arguments);
    process->setWorkingDirectory(procParams.workDir);
    process->setWinProcParams(procParams);
}

void ZqAppCommand::start() {
    if (!needsWine.isEmpty() && !ZqWine::isInstalled()) {
        throw SxException("'" + needsWine + "' is a Windows program, and there is no wine to run it with",
                          UNIT, __LINE__);
    }
    process->start();
}
