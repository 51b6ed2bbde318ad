#include "ZqFleetPage.h"

SxString ZqFleetPage::toHtml() const {
    return {};
}
