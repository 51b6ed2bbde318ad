#pragma once

#include "SxProcess.h"

/// A child process without a window and without output on our terminal: a tool that a job runs. What it says
/// on standard error is kept (getErrorText()).
///
/// It ends with its starter, so that the tool of a killed client can't write into files that the next client
/// has begun anew. That binds it to the thread that calls start(): the same thread must wait() for the end.
/// Other threads may do all the rest.
class ZqSilentProcess : public SxProcess {
public:
    ZqSilentProcess(const SxString& program, const SxList<SxString>& arguments);
};
