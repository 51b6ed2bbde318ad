#pragma once

#include "SxProcess.h"

/// A child process without a window and without output: a tool that a job runs. Threads as SxProcess.
class ZqSilentProcess : public SxProcess {
public:
    ZqSilentProcess(const SxString& program, const SxList<SxString>& arguments);
};
