#include "ZqRangeFetch.h"

#include "SxClock.h"
#include "SxException.h"
#include "ZqAddressSource.h"

ZqRangeFetch::ZqRangeFetch(const SxPtr<ZqRangeSource>& from_, uint64 offset_, uint64 length_, bool isApart_)
    : offset(offset_),
      length(length_),
      isApart(isApart_),
      beginMs(SxClock::get().steadyMs()),
      from(from_) {
    setThreadName("on demand");
}

void ZqRangeFetch::main() {
    try {
        data.resize(static_cast<int64>(length));
        from->read(offset, length, data.data(), isApart);
        hasCome = true;
    } catch (const SxException& e) {
        isInvalid = e.hasTag(ZqAddressSource::INVALID);
        failure = e.toString(SxException::ShowMessage, ": ");
    } catch (const std::exception& e) {
        failure = e.what();
    }
}
