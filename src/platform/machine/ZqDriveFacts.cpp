#include "ZqDriveFacts.h"

SxString ZqDriveFacts::nameOf(const SxString&) {
    return "Unknown";
}
