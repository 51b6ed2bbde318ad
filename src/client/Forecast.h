#pragma once

#include <tavrin/SxSymbol.h>
#include <tavrin/ZqStartForecast.h>

/// How many bytes of `img.zqf` one byte of its packed form brings, in the mean; 1 where the image folder has
/// no packed form. `sizeZqf`: of the complete image.
double packingGain(const SxString& image, uint64 sizeZqf);
/// When to start, in one sentence without its full stop, as in "safe to start in 5.3 s, when 12.7 MiB are
/// there".
SxString safeStartText(const ZqStartForecast& forecast);
/// What a start as early as can be would bring, likewise.
SxString earlyStartText(const ZqStartForecast& forecast);
/// Adds the object that `--json` shows, under `key`.
void appendForecast(SxParserKit::SxSymbol* result, const SxString& key, const ZqStartForecast& forecast);
