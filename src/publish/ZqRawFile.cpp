#include "ZqRawFile.h"

#include "ZqImageFolder.h"

ZqRawFile::ZqRawFile(const SxString& dir)
    : made(ZqImageFolder::prefix(dir)),
      file(ZqImageFolder::prefix(dir) + NAME, 0666) {
}

void ZqRawFile::commit() {
    made.sync();
    file.commit();
    made.keep();
}
