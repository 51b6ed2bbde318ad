#include "ZqMeans.h"

#include "SxException.h"

ZqMeans ZqMeans::tried(const ZqMeans& there, ZqMeans missing, const std::function<void()>& require) {
    try {
        require();
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        missing.text += ": " + e.toString(SxException::ShowMessage, ": ");
        return missing;
    }
    return there;
}
