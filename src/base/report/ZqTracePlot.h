#pragma once

#include "ZqChart.h"

#include <optional>

/// The picture of a trace: which blocks were touched over time, and how many bytes were needed by then.
/// Blocks stand by RAW index, as runs of a trace are listed, or by their place in `img.zqf` in bytes, which a
/// download can be compared with. Reads the trace twice, in pieces: once for the ranges of the axes and once
/// to count. So it keeps only a bit for each block and the picture's cells, however many accesses there are.
/// Times before the beginning count as negative ones. Not locked.
class ZqTracePlot {
public:
    struct Settings {
        SxString trace; ///< the trace folder, with its slash
        /// Folder with its slash, whose `img.idx` tells where blocks stand in `img.zqf`; empty for the order
        /// on the disk, by RAW index.
        SxString image;
        /// From when on time counts, milliseconds since 1970 UTC; the trace's `time0` where not given.
        std::optional<int64> begin;
        int64 end = 0; ///< with `begin`: up to when the axis of time reaches at least, milliseconds
        /// Milliseconds, and bytes of `img.zqf` that were there by then; shown with `image` only.
        ZqChart::Points download;
    };

    /// Raises where there is no trace, it can't be read, the image can't be or is of another build
    /// (`checksums.mnt`), or the trace names a block beyond that.
    explicit ZqTracePlot(Settings settings_);

    int64 getNItems() const { return nItems; }
    /// Those with the mark of a write.
    int64 getNWrites() const { return nWrites; }
    /// Those to blocks that the image doesn't include, which aren't shown.
    int64 getNElsewhere() const { return nElsewhere; }
    /// Blocks that were touched, of those that are shown.
    int64 getNBlocks() const { return nBlocks; }

    /// What the trace holds, in a line.
    SxString describe() const;
    /// Block over time, and bytes needed over time; none where no accesses are shown.
    std::vector<ZqFigure> getFigures() const;
    /// Both as an SVG document.
    SxString toSvg() const;

private:
    void readPlaces();
    void findRange();
    void count();
    /// Where the access is shown; none for a block that the image doesn't include.
    std::optional<uint64> placeOf(uint64 rawIdx) const;
    double timeOf(uint64 timeMs) const;
    bool hasPlaces() const { return !settings.image.isEmpty(); }
    /// Blocks from the bottom to the top of the picture.
    double getHeight() const;
    ZqChartAxis timeAxis() const;
    ZqFigure drawBlocks() const;
    ZqFigure drawNeeded() const;

    const Settings settings;
    int64 time0 = 0;
    SxArray<uint64> places; ///< by RAW index
    int64 nItems = 0, nWrites = 0, nElsewhere = 0, nBlocks = 0;
    double firstMs = 0, lastMs = 0; ///< of what is shown
    uint64 lastPlace = 0;
    ZqChartCells reads, writes;
    /// By column of the plot, one a unit of width: blocks that were new in it, and the place that follows the
    /// last one.
    std::vector<uint64> nNew, ends;
};
