#include "ZqOrderBasis.h"

void ZqOrderBasis::append(SxParserKit::SxSymbol* to) const {
    to->append("runs", nRuns);
    to->append("sessions", nSessions);
    to->append("core", nCore);
    to->append("tail", nTail);
    to->append("groups", nGroups);
}
