#pragma once

#include "ZqImageCounts.h"
#include "ZqImageForms.h"
#include "ZqImageRanges.h"
#include "ZqStreamEdge.h"
#include "ZqStretchCache.h"

/// One run of the ordered stream of an image, on the caller's thread: takes each stretch out of what is kept
/// or on its way, or else of whichever form serves, checked, and hands it on. Goes on by itself after
/// failures that may pass. One at a time for an image.
///
/// The packed form is taken from its first frame on at once; its seek table is fetched beside that. No form
/// is waited for while the other may be there; where neither comes both have turns, with one back-off
/// (ZqNetRetry::beginTurn).
class ZqImageStream {
public:
    using Bytes = ZqImageForms::Bytes;
    using Sink = ZqRemoteFile::Sink;

    /// From byte `offset` on. The parts, `sink_` and `stop_` must live longer. Raises where a run is under
    /// way.
    ZqImageStream(ZqImageForms* forms_, ZqStretchCache* cache_, ZqStreamEdge* edge_, ZqImageRanges* ranges_,
                  ZqImageCounts* counts_, uint64 offset, const Sink& sink_, const ZqStopTest& stop_);
    ~ZqImageStream();
    ZqImageStream(const ZqImageStream&) = delete;
    ZqImageStream& operator=(const ZqImageStream&) = delete;

    /// False where the sink ended it.
    bool run();

private:
    using Table = ZqImageForms::Table;
    static constexpr uint64 NOWHERE = ~uint64{0};
    class Request;

    uint64 stretchIdx() const { return pos / ZqStretchLayout::STRETCH; }
    uint64 sizeZqf() const { return forms->getLayout().getSizeZqf(); }
    /// Longer than one request that is silent to its end: a single dead connection is no reason to turn to
    /// the other form.
    int64 turnMs() const { return forms->getLink()->getSettings().stallMs * 3 / 2; }
    bool runPlain();
    void recoverPlain(const SxException& e);
    bool takePlain(const SxArray<char>& piece, bool* isEnding);
    bool isRight(uint64 idx);
    bool isSuspect(uint64 idx) const;
    bool runPacked();
    bool runFrames(const Table& known);
    bool skipOrigin(Request* request, SxArray<char>* pending);
    bool fill(Request* request, SxArray<char>* pending);
    int64 frameAt(const SxArray<char>& pending, const Table& known) const;
    bool takeFrame(const Bytes& bytes, uint64 nWire);
    void noteDamage(const SxException& e, bool isFrame);
    uint64 endOfRequest() const;
    bool isWorthSkipping() const;
    void publish(uint64 idx, const Bytes& bytes, uint64 nWire);
    bool deliver(const char* bytes, uint64 n);

    ZqImageForms* const forms;
    ZqFormChoice& choice;
    ZqStretchCache* const cache;
    ZqStreamEdge* const edge;
    ZqImageRanges* const ranges;
    ZqImageCounts* const counts;
    const Sink& sink;
    const ZqStopTest& stop;
    uint64 pos;               ///< the decoded byte that the sink gets next
    uint64 received = 0;      ///< the byte of the plain form that comes next; before `pos` or beyond it
    bool awaitsTable = false; ///< the plain form is taken until the packed one can be
    Bytes assembled;          ///< the stretch at `received` so far, in the plain form; null without its begin
    uint64 wireIdx = 0, wirePos = 0; ///< a stretch, and where its frame begins
    uint64 damagedIdx = NOWHERE;     ///< the stretch that was damaged last, in either form
    const SxPtr<ZqNetRetry> retry;   ///< of both forms, which take turns where neither comes
};
