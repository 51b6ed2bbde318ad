#include "MountParams.h"

void MountParams::write(ZqDriveWire::Writer* out) const {
    out->text(image).text(traceFolder);
    for (const bool flag : {readOnly, writeLayer, removable, hostFlag, awaitFileSystem, spareFlag})
        out->flag(flag);
    out->number(sizeRaw).number(sectorSize).number(cursor);
}

MountParams MountParams::read(ZqDriveWire::Reader* in) {
    MountParams params;
    params.image = in->text();
    params.traceFolder = in->text();
    params.readOnly = in->flag();
    params.writeLayer = in->flag();
    params.removable = in->flag();
    params.hostFlag = in->flag();
    params.awaitFileSystem = in->flag();
    params.spareFlag = in->flag();
    params.sizeRaw = in->number();
    params.sectorSize = in->number();
    params.cursor = in->number();
    return params;
}
