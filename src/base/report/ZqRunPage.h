#pragma once

#include "ZqChart.h"
#include "ZqRunResult.h"

/// The report of a run as one page of HTML: its figures, the download and the underflows over its time, and
/// what the application read. Download and reads are shown in one chart by their place in `img.zqf`: what
/// lies above the line of the download was waited for. The page refers to nothing outside, and holds no
/// script. For one thread at a time.
class ZqRunPage {
public:
    /// `result_` must outlive it. `failure_`: what has ended the run, as a line; empty where nothing did.
    explicit ZqRunPage(const ZqRunResult& result_, const SxString& failure_ = SxString());

    /// Reads the trace of the run and the image's map; where they can't be, the page says why.
    SxString toHtml() const;

private:
    SxString head() const;
    SxString tiles() const;
    SxString downloadSection() const;
    SxString underflowTable() const;
    SxString readSections() const;
    SxString details() const;
    ZqFigure drawDownload() const;
    /// Bytes over the time of the run.
    ZqChart::Points pointsOf(uint64 ZqRunSeries::Sample::*bytes) const;

    const ZqRunResult& result;
    const SxString failure;
};
