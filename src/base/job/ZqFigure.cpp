#include "ZqFigure.h"

#include <cmath>
#include <cstdlib>

namespace {

constexpr double MARGIN = 24;
constexpr double TITLE_Y = 40, NOTE_Y = 64, FIGURES_Y = 76;
/// Where the legend stands in a figure of a document, beside the name of the vertical axis.
constexpr double KEYS_Y = 20;
constexpr double SWATCH = 18, SWATCH_GAP = 6, KEY_GAP = 22;
/// Width of a letter of the legend on average, since nobody tells the real one.
constexpr double LETTER = 6.7;

struct Ink {
    const char* name;
    const char* light;
    const char* dark;
};
constexpr Ink INKS[] = {
    {"reads", "#2563eb", "#6ea8fe"},  {"writes", "#d9480f", "#ff9f5a"},    {"needed", "#0f766e", "#2dd4bf"},
    {"prefix", "#7c3aed", "#b794f6"}, {"there", "#0891b2", "#22d3ee"},     {"received", "#64748b", "#94a3b8"},
    {"demand", "#b45309", "#fbbf24"}, {"underflow", "#dc2626", "#f87171"}, {"wait", "#7c3aed", "#a78bfa"},
    {"start", "#15803d", "#4ade80"},  {"frame", "#a21caf", "#e879f9"},     {"drive", "#475569", "#a8b3c4"},
};

SxString keyShape(const ZqFigure::Key& key, double x) {
    const SxString begin = ZqFigure::number(x);
    switch (key.shape) {
    case ZqFigure::Dots:
        return SxString("<rect class=\"dot ") + key.ink + "\" x=\"" + ZqFigure::number(x + 5) + "\" y=\"" +
               ZqFigure::number(KEYS_Y - 9) + "\" width=\"8\" height=\"8\"/>";
    case ZqFigure::Band:
        return SxString("<rect class=\"band ") + key.ink + "\" x=\"" + begin + "\" y=\"" +
               ZqFigure::number(KEYS_Y - 11) + "\" width=\"" + ZqFigure::number(SWATCH) +
               "\" height=\"12\"/>";
    case ZqFigure::Line:
    case ZqFigure::Mark:
        break;
    }
    return SxString("<path class=\"") + (key.shape == ZqFigure::Mark ? "mark " : "line ") + key.ink +
           "\" d=\"M" + begin + " " + ZqFigure::number(KEYS_Y - 5) + "h" + ZqFigure::number(SWATCH) + "\"/>";
}

double widthOf(const ZqFigure::Key& key) {
    return SWATCH + SWATCH_GAP + LETTER * static_cast<double>(key.text.getSize());
}

/// The legend, ending at the right margin.
SxString drawKeys(const std::vector<ZqFigure::Key>& keys) {
    double x = ZqFigure::WIDTH - MARGIN + KEY_GAP;
    for (const ZqFigure::Key& key : keys)
        x -= widthOf(key) + KEY_GAP;
    SxString svg;
    for (const ZqFigure::Key& key : keys) {
        svg += keyShape(key, x) + "<text class=\"key\" x=\"" + ZqFigure::number(x + SWATCH + SWATCH_GAP) +
               "\" y=\"" + ZqFigure::number(KEYS_Y) + "\">" + ZqFigure::escape(key.text) + "</text>";
        x += widthOf(key) + KEY_GAP;
    }
    return svg + "\n";
}

const char* shapeClass(ZqFigure::Shape shape) {
    switch (shape) {
    case ZqFigure::Dots:
        return "dots";
    case ZqFigure::Line:
        return "stroke";
    case ZqFigure::Band:
        return "block";
    case ZqFigure::Mark:
        return "dashes";
    }
    return "";
}

/// The code points that XML forbids besides those that a visible text no longer has: U+FFFE and U+FFFF.
bool isForbidden(std::string_view three) {
    return three == "\xEF\xBF\xBE" || three == "\xEF\xBF\xBF";
}

} // namespace

SxString ZqFigure::escape(const SxString& text) {
    const SxString visible = text.makeVisible();
    const std::string_view all = visible;
    std::string result;
    for (size_t i = 0; i < all.size(); ++i) {
        switch (all[i]) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            if (isForbidden(all.substr(i, 3))) {
                result += "\xEF\xBF\xBD";
                i += 2;
            } else {
                result += all[i];
            }
        }
    }
    return SxString(std::move(result));
}

SxString ZqFigure::number(double value) {
    const auto tenths = static_cast<int64>(std::llround(value * 10));
    SxString text = SxString(tenths < 0 ? "-" : "") + std::abs(tenths) / 10;
    if (tenths % 10 != 0) text += SxString(".") + std::abs(tenths) % 10;
    return text;
}

SxString ZqFigure::styleSheet() {
    SxString light, dark;
    for (const Ink& ink : INKS) {
        light += SxString(".") + ink.name + "{color:" + ink.light + "}\n";
        dark += SxString(".") + ink.name + "{color:" + ink.dark + "}\n";
    }
    return "text{font-family:sans-serif;font-size:13px;fill:#566073}\n"
           ".title{font-size:21px;font-weight:600;fill:#1b2230}\n"
           ".sheet{fill:#ffffff}\n"
           ".grid{stroke:#e6e9ef;stroke-width:1;fill:none}\n"
           ".frame-line{stroke:#aeb6c4;stroke-width:1;fill:none}\n"
           ".line{fill:none;stroke:currentColor;stroke-width:2;stroke-linejoin:round}\n"
           ".area{fill:currentColor;fill-opacity:.13;stroke:none}\n"
           ".cells{fill:none;stroke:currentColor;stroke-opacity:.42}\n"
           ".few{stroke-opacity:.85}\n"
           ".band{fill:currentColor;fill-opacity:.22;stroke:none}\n"
           ".dot{fill:currentColor;stroke:none}\n"
           ".mark{fill:none;stroke:currentColor;stroke-width:2;stroke-dasharray:6 4}\n"
           ".dashed{stroke-dasharray:6 4}\n" +
           light +
           "@media (prefers-color-scheme:dark){\n"
           "text{fill:#9aa5b8}\n"
           ".title{fill:#e8ecf4}\n"
           ".sheet{fill:#171c26}\n"
           ".grid{stroke:#29303d}\n"
           ".frame-line{stroke:#566073}\n" +
           dark + "}\n";
}

SxString ZqFigure::toHtml() const {
    SxString html = "<section class=\"card\">\n<h2>" + escape(heading) + "</h2>\n";
    if (!keys.empty()) {
        html += "<ul class=\"keys\">";
        for (const Key& key : keys) {
            html += SxString("<li><i class=\"swatch ") + shapeClass(key.shape) + " " + key.ink + "\"></i>" +
                    escape(key.text) + "</li>";
        }
        html += "</ul>\n";
    }
    // The page has a margin of its own.
    html += "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"" + number(MARGIN) + " 0 " +
            number(WIDTH - MARGIN) + " " + number(height) + "\" role=\"img\" aria-label=\"" + escape(label) +
            "\">\n" + body + "</svg>\n</section>\n";
    return html;
}

SxString ZqFigure::toDocument(const SxString& title, const SxString& note,
                              const std::vector<ZqFigure>& figures) {
    double height = FIGURES_Y + MARGIN / 2;
    for (const ZqFigure& figure : figures)
        height += figure.height;
    const SxString size = number(WIDTH) + " " + number(height), left = number(MARGIN);
    SxString svg = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                   "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
                   size + "\" width=\"" + number(WIDTH) + "\" height=\"" + number(height) +
                   "\" role=\"img\">\n<title>" + escape(title) + "</title>\n<style>\n" + styleSheet() +
                   "</style>\n<rect class=\"sheet\" width=\"" + number(WIDTH) + "\" height=\"" +
                   number(height) + "\"/>\n<text class=\"title\" x=\"" + left + "\" y=\"" + number(TITLE_Y) +
                   "\">" + escape(title) + "</text>\n<text x=\"" + left + "\" y=\"" + number(NOTE_Y) + "\">" +
                   escape(note) + "</text>\n";
    double y = FIGURES_Y;
    for (const ZqFigure& figure : figures) {
        svg += "<g transform=\"translate(0 " + number(y) + ")\">\n" + drawKeys(figure.keys) + figure.body +
               "</g>\n";
        y += figure.height;
    }
    return svg + "</svg>\n";
}
