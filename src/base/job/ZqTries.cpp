#include "ZqTries.h"

void ZqTries::raise() const {
    if (failures.isEmpty()) return;
    if (failures.getSize() == 1) throw SxException(failures.first());
    SxList<SxString> texts;
    for (const SxException& failure : failures)
        texts.append(failure.toString(SxException::ShowMessage, ": "));
    throw SxException(SxString::join(texts, "; "), "src/base/ZqTries", __LINE__);
}
