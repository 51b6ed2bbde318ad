#include "RunTexts.h"

#include <tavrin/ZqReadable.h>

#include <cmath>

namespace {

constexpr double BYTES_PER_MBIT = 125'000;

/// What goes on beside the application or the drive.
SxString besideText(const ZqFeedStatus& status) {
    if (status.isUnderflow) return ", the application waits for data";
    if (status.nCurrent < status.nTotal) return ", downloading";
    return status.isChecking ? ", checking the image" : "";
}

SxString phaseText(ZqRun::Phase phase, const ZqFeedStatus& status) {
    const bool isDownloading = status.nCurrent < status.nTotal;
    const char* otherwise = status.isChecking            ? "checking the image"
                            : phase == ZqRun::Completing ? "completing the image"
                                                         : "getting ready";
    switch (phase) {
    case ZqRun::Opening:
        return "looking for the image";
    case ZqRun::Loading:
    case ZqRun::Preparing:
    case ZqRun::Completing:
        return isDownloading ? "downloading" : otherwise;
    case ZqRun::Mounting:
        return "making the drive";
    case ZqRun::Running:
    case ZqRun::Adopted:
        return "running" + besideText(status);
    case ZqRun::Feeding:
        return "the drive is there" + besideText(status);
    case ZqRun::Ending:
        return "taking the drive away";
    }
    return {};
}

SxString outageText(const ZqNetOutage& outage) {
    if (outage.ms < 1000) return {};
    const SxString seconds(outage.ms / 1000);
    if (outage.nTries == 0) return " for " + seconds + " s";
    return ", offline for " + seconds + " s, asked " + ZqReadable::counted(outage.nTries, "time", "times");
}

SxString startText(double seconds, bool isBound) {
    const auto whole = static_cast<int64>(std::ceil(seconds));
    if (whole == 0) return ", starts in a moment";
    return (isBound ? ", starts within " : ", starts in ") + SxString(whole) + " s";
}

} // namespace

SxString statusText(ZqRun::Phase phase, const ZqFeedStatus& status, std::optional<double> untilStart,
                    bool isBound) {
    if (!status.waiting.isEmpty()) return status.waiting + outageText(status.outage);
    SxString text = phaseText(phase, status);
    if (untilStart) text += startText(*untilStart, isBound);
    if (status.nShort > 0) {
        text += SxString::sprintf(", needs %.0f MB more on the disk",
                                  std::ceil(static_cast<double>(status.nShort) / 1e6));
    }
    return text;
}

SxString traceText(const ZqTracePolicy::Decision& decision) {
    static_assert(ZqTracePolicy::N_ENOUGH == 5 && ZqTracePolicy::EVERY == 10, "the text says so");
    switch (decision.reason) {
    case ZqTracePolicy::Wished:
        return decision.records ? "Records which blocks are read, as --trace says."
                                : "Records no trace, as --no-trace says.";
    case ZqTracePolicy::Few:
        return "Records which blocks are read: " + SxString(decision.nSound) +
               " of 5 traces of this build are there.";
    case ZqTracePolicy::Turn:
        return "Records which blocks are read: five traces of this build are there, and every tenth run "
               "records.";
    case ZqTracePolicy::Enough:
        return "Records no trace: five traces of this build are there. Every tenth run records.";
    case ZqTracePolicy::Unable:
        return "Records no trace: that needs a drive of the service, and /dev/fuse can't be used here.";
    case ZqTracePolicy::Partial:
        break;
    }
    return {};
}

SxString waitsText(const ZqRunRecord::Waits& waits) {
    if (waits.n == 0) return "none";
    return SxString(waits.n) + ", the longest " + ZqReadable::seconds(waits.longestMs) + ", " +
           ZqReadable::seconds(waits.sumMs) + " in all";
}

void tellFigures(const ZqRun::Result& result, Output* out) {
    const ZqRuntimeInfo& info = result.info;
    if (result.startMs >= 0) out->text("  start of the application  " + ZqReadable::seconds(result.startMs));
    if (result.firstWindowMs >= 0)
        out->text("  first window seen         " + ZqReadable::seconds(result.firstWindowMs));
    if (result.firstFrameMs >= 0)
        out->text("  first frame               " + ZqReadable::seconds(result.firstFrameMs));
    if (result.startMs >= 0) {
        out->text("  needed for the start      " + readableBytes(static_cast<double>(info.preloadSize)) +
                  " of " + readableBytes(static_cast<double>(info.imageSize)));
    }
    out->text("  received                  " + readableBytes(static_cast<double>(result.link.nBytes)) +
              (result.image.isPacked ? " (packed)" : "") + ", on demand " +
              readableBytes(static_cast<double>(result.link.nOnDemandBytes)) + ", twice " +
              readableBytes(static_cast<double>(result.image.nTwice)));
    out->text(SxString("  on-demand requests        ") + info.nOnDemandFetches + ", " + info.avgOnDemandTime +
              " ms each, the longest " + info.maxOnDemandTime + " ms");
    if (info.nHinted > 0) {
        out->text(SxString("  fetched by hints          ") +
                  ZqReadable::counted(info.nHinted, "stretch", "stretches") + ", of which " +
                  info.nHintsUsed + " were read");
    }
    if (result.waits) out->text("  waits for data            " + waitsText(*result.waits));
    out->text(SxString("  underflows                ") + info.nUnderflows + ", the longest " +
              ZqReadable::seconds(info.maxUnderflowTime));
    SxString download = info.downloadComplete ? "complete" : "goes on with the next run";
    if (result.link.rate > 0)
        download += SxString::sprintf(", the link brought %.1f Mbit/s", result.link.rate / BYTES_PER_MBIT);
    out->text("  download                  " + download);
    if (!result.traceFolder.isEmpty()) out->text("  trace                     " + result.traceFolder);
    if (!result.mountPath.isEmpty()) out->text("  the drive stays at        " + result.mountPath);
}

void tellMissing(const ZqRun& job, const SxString& image, Output* out) {
    const uint64 nMissing = job.getResult().nMissing, nShort = job.getStatus().nShort;
    if (nMissing == 0) return;
    SxString text = readableBytes(static_cast<double>(nMissing)) + " are still missing";
    if (nShort > 0) text += ", and the disk has no room for " + ZqReadable::megabytes(nShort) + " of them";
    out->text(text + (nShort > 0 ? "; make room there, then `tavrin fetch " : "; `tavrin fetch ") +
              image.makeVisible() + "` downloads them");
}

SxString lostWritesText(const SxString& image) {
    return "What programs wrote to the former drive of '" + image +
           "' may be lost as far as they hadn't synced it: its service was killed, or somebody has taken it "
           "away";
}
