#include "ZqFleetLoad.h"

#include "SxException.h"
#include "ZqFleetColumns.h"
#include "ZqFleetFigures.h"
#include "ZqJobsTogether.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/fleet/ZqFleetLoad";
/// More gain little: the threads take turns in reading, and the database has threads of its own.
constexpr int64 MOST_THREADS = 2;
constexpr int64 FORMAT = 2;

bool isBefore(const ZqRecordFault& a, const ZqRecordFault& b) {
    return a.file != b.file ? a.file < b.file : a.line < b.line;
}

} // namespace

/// What one thread does.
class ZqFleetLoad::Worker {
public:
    explicit Worker(ZqFleetLoad* load)
        : files(load->files),
          rows(load->database, load->table, ZqFleetColumns::all()),
          parser(ZqFleetColumns::all(), ZqFleetColumns::keys()) {}

    void run(const std::function<bool()>& isStopped, const std::function<void(uint64)>& nRead);
    const Result& getResult() const { return result; }

private:
    void readBatch();
    /// Whether it was taken.
    SxString take(const ZqRecordBatch::Record& record);
    void note(const ZqRecordFault& fault);

    ZqRecordFiles& files;
    ZqDuckDb::Appender rows;
    ZqRecordParser parser;
    ZqRecordBatch batch;
    std::vector<ZqCell> cells;
    std::string keyRoom;
    Result result;
};

void ZqFleetLoad::Worker::run(const std::function<bool()>& isStopped,
                              const std::function<void(uint64)>& nRead) {
    while (files.next(&batch)) {
        if (isStopped()) throw SxException(SxException::STOPPED, "stopped", UNIT, __LINE__);
        nRead(files.getNRead());
        readBatch();
    }
    rows.finish();
}

void ZqFleetLoad::Worker::readBatch() {
    if (!batch.getFault().text.isEmpty()) return note(batch.getFault());
    if (batch.isWholeFile()) {
        const SxString fault = take(batch.whole());
        if (fault.isEmpty()) return;
        if (!batch.looksLikeLines()) return note({batch.getFile(), 0, fault});
    }
    ZqRecordBatch::Record record;
    while (batch.nextLine(&record)) {
        const SxString fault = take(record);
        if (!fault.isEmpty()) note({batch.getFile(), record.line, fault});
    }
}

SxString ZqFleetLoad::Worker::take(const ZqRecordBatch::Record& record) {
    SxString fault = read(&parser, record.text, &cells, &keyRoom);
    if (!fault.isEmpty()) return fault;
    rows.add(cells);
    ++result.nTaken;
    return {};
}

/// Pieces come in order, so the first faults of a thread are those that lie in front.
void ZqFleetLoad::Worker::note(const ZqRecordFault& fault) {
    ++result.nBad;
    if (result.faults.size() < ZqFleetFigures::MOST_FAULTS) result.faults.push_back(fault);
}

SxString ZqFleetLoad::read(ZqRecordParser* parser, std::string_view document, std::vector<ZqCell>* cells,
                           std::string* keyRoom) {
    SxString fault = parser->read(document, cells);
    if (!fault.isEmpty()) return fault;
    ZqCell& id = (*cells)[ZqFleetColumns::Id];
    const ZqCell& guid = (*cells)[ZqFleetColumns::Guid];
    const ZqCell& time0 = (*cells)[ZqFleetColumns::Time0];
    const ZqCell& version = (*cells)[ZqFleetColumns::Version];
    if (version.isSet && version.whole != FORMAT)
        return "its 'version' is " + SxString(version.whole) + " and not " + FORMAT;
    // Runs without one must not become the same run.
    if (id.text.empty()) id.isSet = false;
    if (id.isSet) {
        // Apart from those that follow, whatever an id looks like.
        keyRoom->assign("i").append(id.text);
    } else if (guid.isSet && !guid.text.empty() && time0.isSet && time0.whole > 0) {
        keyRoom->assign("r").append(std::to_string(time0.whole)).append(guid.text);
    } else {
        return "it says of no run: it has no 'id', nor both 'guid' and 'time0'";
    }
    ZqCell& key = (*cells)[ZqFleetColumns::Key];
    key.isSet = true;
    key.text = *keyRoom;
    return {};
}

ZqFleetLoad::Result ZqFleetLoad::run(const std::function<bool()>& isStopped,
                                     const std::function<void(uint64)>& nRead) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int64 i = 0; i < std::min(SxSystemThread::getNCores(), MOST_THREADS); ++i)
        workers.push_back(std::make_unique<Worker>(this));
    {
        ZqJobsTogether threads;
        for (const auto& worker : workers)
            threads.start("fleet-load", [&worker, &isStopped, &nRead] { worker->run(isStopped, nRead); });
        threads.wait();
    }
    Result all;
    for (const auto& worker : workers) {
        const Result& one = worker->getResult();
        all.nTaken += one.nTaken;
        all.nBad += one.nBad;
        all.faults.insert(all.faults.end(), one.faults.begin(), one.faults.end());
    }
    std::sort(all.faults.begin(), all.faults.end(), isBefore);
    all.faults.resize(std::min(all.faults.size(), ZqFleetFigures::MOST_FAULTS));
    return all;
}
