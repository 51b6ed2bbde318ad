#include "ZqSilentProcess.h"

ZqSilentProcess::ZqSilentProcess(const SxString& program_, const SxList<SxString>& arguments_)
    : SxProcess(program_, arguments_, KeepError) {
    setHiddenWindow(true);
    setEndsWithStarter(true);
}
