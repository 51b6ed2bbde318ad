#include "ZqOnDemandCallback.h"

#include "SxException.h"
#include "ZqLog.h"

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";

} // namespace

ZqOnDemandCallback::ZqOnDemandCallback(Function function_, uint64 offset_, uint64 size_, void* callbackData_)
    : function(function_),
      callbackData(callbackData_),
      offset(offset_),
      size(size_) {
    setThreadName("on demand");
}

ZqOnDemandCallback::~ZqOnDemandCallback() {
    if (isRunning()) {
        zqLogMsg("base", "AsyncCallback::~AsyncCallback : External framework did not return callback. "
                         "Waiting...");
    }
    wait();
}

void ZqOnDemandCallback::main() {
    buffer = SxPtr<SxArray<char>>::create(static_cast<int64>(size));
    char* data = buffer->data();
    try {
        const int result = function(offset, size, &data, callbackData);
        const SxMutexBlock lock(&resultMutex);
        returnCode = result;
        finishedFlag = true;
    } catch (...) {
        {
            const SxMutexBlock lock(&resultMutex);
            finishedFlag = true;
        }
        throw SxException("External framework returned an exception", UNIT, __LINE__);
    }
}

int ZqOnDemandCallback::getReturnCode() const {
    const SxMutexBlock lock(&resultMutex);
    return returnCode;
}

bool ZqOnDemandCallback::isFinished() const {
    const SxMutexBlock lock(&resultMutex);
    return finishedFlag;
}
