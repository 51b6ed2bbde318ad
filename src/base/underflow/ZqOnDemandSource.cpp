#include "ZqOnDemandSource.h"

#include "SxException.h"
#include "ZqAddressSource.h"
#include "ZqRangeSource.h"

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";

} // namespace

ZqOnDemandSource::ZqOnDemandSource(ZqOnDemandCallback::Function callback, void* callbackData)
    : choice{callback, callbackData, nullptr} {
}

void ZqOnDemandSource::requireNoCallback() const {
    if (choice.callback || choice.callbackData)
        throw SxException("Only one underflow callback method supported.", UNIT, __LINE__);
}

void ZqOnDemandSource::setRanges(const SxPtr<ZqRangeSource>& source) {
    const SxMutexBlock lock(&mutex);
    requireNoCallback();
    if (!source) throw SxException("There is no source of ranges", UNIT, __LINE__);
    choice.ranges = source;
    address = nullptr;
}

void ZqOnDemandSource::setAddress(const SxString& url, const SxList<SxString>& headers) {
    const SxMutexBlock lock(&mutex);
    requireNoCallback();
    const SxPtr<ZqAddressSource> source = address ? address : SxPtr<ZqAddressSource>::create();
    source->setAddress(url, headers);
    choice.ranges = address = source;
}

ZqOnDemandSource::Choice ZqOnDemandSource::get() const {
    const SxMutexBlock lock(&mutex);
    return choice;
}

bool ZqOnDemandSource::canFetch() const {
    const SxMutexBlock lock(&mutex);
    return choice.callback || choice.ranges;
}

void ZqOnDemandSource::cancel(bool on) {
    if (const SxPtr<ZqRangeSource> source = get().ranges) source->cancel(on);
}
