#include "Forecast.h"
#include "Output.h"

#include <tavrin/SxFileInfo.h>
#include <tavrin/ZqImageFiles.h>
#include <tavrin/ZqImageFolder.h>

#include <algorithm>
#include <cmath>

namespace {

SxString inSeconds(double seconds) {
    return SxString::sprintf(seconds < 10 ? "%.1f s" : "%.0f s", seconds);
}

SxString whenText(double seconds) {
    if (std::isinf(seconds)) return "never at this speed";
    return seconds >= 0.05 ? "in " + inSeconds(seconds) : SxString("at once");
}

} // namespace

double packingGain(const SxString& image, uint64 sizeZqf) {
    const SxFileInfo packed(ZqImageFolder::prefix(image) + ZqImageFiles::PACKED);
    const int64 size = packed.isFile() ? packed.getSize() : 0;
    return size > 0 ? std::max(static_cast<double>(sizeZqf) / static_cast<double>(size), 1.0) : 1;
}

SxString safeStartText(const ZqStartForecast& forecast) {
    SxString text = "safe to start " + whenText(forecast.untilSafe);
    if (forecast.untilSafe > 0)
        text += ", when " + readableBytes(static_cast<double>(forecast.nInit)) + " are there";
    if (!forecast.isKnown) text += "; there is no load profile, so that is the whole image";
    return text;
}

SxString earlyStartText(const ZqStartForecast& forecast) {
    SxString text = "started " + whenText(forecast.untilMount) + ", the application ";
    if (!forecast.isKnown && forecast.untilSafe > forecast.untilMount)
        return text + "waits for data, nobody knows how often";
    if (forecast.waits.empty()) return text + "waits for no data";
    const ZqStartForecast::Wait& first = forecast.waits.front();
    const size_t n = forecast.waits.size();
    text += SxString("waits for data ") +
            (n == 1 ? SxString("once, ") : SxString(static_cast<uint64>(n)) + " times, ");
    text += (first.at > 0 ? "after " + inSeconds(first.at) : SxString("at its start")) + " for ";
    text += std::isinf(first.seconds) ? SxString("ever") : inSeconds(first.seconds);
    // After a wait for ever there is no other.
    if (n > 1 && !std::isinf(forecast.getTotalWait()))
        text += ", in all " + inSeconds(forecast.getTotalWait());
    return text;
}

void appendForecast(SxParserKit::SxSymbol* result, const SxString& key, const ZqStartForecast& forecast) {
    using SxParserKit::SxSymbol;
    SxSymbol object = result->append(key, SxParserAst::Object);
    const auto seconds = [](SxSymbol* to, const char* name, double value) {
        // JSON has no word for never.
        if (std::isinf(value)) {
            to->append(name, SxParserAst::Null);
        } else {
            to->append(name, value);
        }
    };
    object.append("profile", forecast.isKnown);
    object.append("sizeInit", forecast.nInit);
    seconds(&object, "safeStart", forecast.untilSafe);
    seconds(&object, "earliestStart", forecast.untilMount);
    SxSymbol waits = object.append("waits", SxParserAst::Array);
    for (const ZqStartForecast::Wait& wait : forecast.waits) {
        SxSymbol item = waits.append(SxParserAst::Object);
        item.append("at", wait.at);
        seconds(&item, "seconds", wait.seconds);
    }
    seconds(&object, "totalWait", forecast.getTotalWait());
}
