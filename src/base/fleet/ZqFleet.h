#pragma once

#include "SxList.h"
#include "ZqFleetFigures.h"
#include "ZqTaskMon.h"

#include <memory>

/// Makes figures of the runs of a fleet: reads their documents, joins those of one run, and puts the runs
/// into groups. Documents are the records that runs leave (`runs/` of an image, `runtime.json`) and those
/// that were sent to a statistics service, one in a file or one a line. Those of one `id` are one run; one
/// without it is known by `guid` and `time0`. Counts bytes.
class ZqFleet : public ZqTaskMon {
public:
    struct Settings {
        SxList<SxString> paths; ///< files, and folders with files below them
        ZqFleetBy by = ZqFleetBy::BuildAndOrder;
        SxString scratch; ///< an empty folder for what the job needs; what it holds then is the caller's
        SxString store;   ///< a file that keeps the runs for later jobs; empty for none
        SxString parquet; ///< a new or empty folder that `runs.parquet` is put into; empty for none
        SxList<SxString> outputs; ///< files that the caller will write, so that none of them is read
    };

    explicit ZqFleet(const Settings& settings_);
    ~ZqFleet() override;

    /// What was found; of a job that has failed the number of records and their faults.
    const ZqFleetFigures& getFigures() const { return figures; }

protected:
    /// Raises where no record could be taken, and where the database or an output fails.
    void main() override;

private:
    void collect(class ZqFleetStore* store, const std::vector<SxString>& paths);
    void writeParquet(ZqFleetStore* store);
    void requireOutputs() const;

    const Settings settings;
    ZqFleetFigures figures;
};
