#include "ZqRuntimeInfo.h"

void ZqRuntimeInfo::getHardwareSpecs() {
    getMachineFacts();
}

void ZqRuntimeInfo::getMachineFacts() {
}
