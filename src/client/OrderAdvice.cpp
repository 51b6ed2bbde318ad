#include "OrderAdvice.h"
#include "Forecast.h"

namespace {
constexpr double USUAL_MBIT = 20;
} // namespace

void tellWithoutOrder(const SxString& image, const ZqAppParams& app, Output* out) {
    const double gain = packingGain(image, app.sizeZqf);
    const ZqStartForecast forecast(app, USUAL_MBIT * gain, 0);
    out->text(SxString::sprintf("No trace has given an order. At %.0f Mbit/s", USUAL_MBIT) +
              (gain > 1 ? " and packed," : "") + " players are " + safeStartText(forecast) + ".");
    out->text("  If " + earlyStartText(forecast) + ".");
    out->text("To change that, record what a start reads, make an order of it, and bring the image to that:");
    const bool isPlayed = !app.cmd.isEmpty();
    const SxString traces = isPlayed ? image + "/traces/*" : SxString("TRACE");
    out->text(isPlayed ? "  tavrin run " + image + " --trace" : "  tavrin mount " + image + " --trace TRACE");
    out->text("  tavrin image order " + image + " " + traces + " ORDER");
    out->text("  tavrin image optimize " + image + " ORDER");
}
