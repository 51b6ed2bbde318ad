#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxSystemThread.h"

/// One call of a client's callback for missing bytes, on a thread of its own.
class ZqOnDemandCallback : public SxSystemThread {
public:
    /// Fills the `size` bytes at `*data` with those of `img.zqf` from byte `offset` on. Gives 0, or 1 where
    /// it can't.
    using Function = int (*)(uint64 offset, uint64 size, char** data, void* callbackData);

    ZqOnDemandCallback(Function function, uint64 offset, uint64 size, void* callbackData);
    /// Waits for the callback's end.
    ~ZqOnDemandCallback() override;

    /// What the callback gave; -1 until then, and where it raised.
    int getReturnCode() const SX_EXCLUDES(resultMutex);
    bool isFinished() const SX_EXCLUDES(resultMutex);
    /// The bytes, once it has finished.
    const SxPtr<SxArray<char>>& getBuffer() const { return buffer; }

protected:
    void main() override;

private:
    const Function function;
    void* const callbackData;
    const uint64 offset, size;
    SxPtr<SxArray<char>> buffer;
    mutable SxMutex resultMutex;
    int returnCode SX_GUARDED_BY(resultMutex) = -1;
    bool finishedFlag SX_GUARDED_BY(resultMutex) = false;
};
