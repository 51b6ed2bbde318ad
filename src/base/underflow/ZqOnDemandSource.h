#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxString.h"
#include "ZqOnDemandCallback.h"

class ZqAddressSource;
class ZqRangeSource;

/// Where missing bytes come from: a client's callback, or ranges, those of an address among them. Safe from
/// any thread.
class ZqOnDemandSource {
public:
    /// The source in force; neither where there is none.
    struct Choice {
        ZqOnDemandCallback::Function callback = nullptr;
        void* callbackData = nullptr;
        SxPtr<ZqRangeSource> ranges; ///< null with a callback
    };

    /// Both may be null.
    ZqOnDemandSource(ZqOnDemandCallback::Function callback, void* callbackData);

    /// Raise where a callback was given.
    void setRanges(const SxPtr<ZqRangeSource>& source) SX_EXCLUDES(mutex);
    void setAddress(const SxString& url, const SxList<SxString>& headers) SX_EXCLUDES(mutex);

    Choice get() const SX_EXCLUDES(mutex);
    bool canFetch() const SX_EXCLUDES(mutex);
    /// While on, reads of ranges raise.
    void cancel(bool on);

private:
    void requireNoCallback() const SX_REQUIRES(mutex);

    mutable SxMutex mutex;
    Choice choice SX_GUARDED_BY(mutex);
    SxPtr<ZqAddressSource> address SX_GUARDED_BY(mutex); ///< the ranges, where they are those of an address
};
