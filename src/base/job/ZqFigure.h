#pragma once

#include "SxString.h"

#include <vector>

/// A drawing with its heading and legend, for an SVG document of its own or a page of HTML. It refers to
/// nothing outside, its colours come from styleSheet(), and all texts in it but `body` are plain ones, of
/// whatever origin. A plain value.
struct ZqFigure {
    /// Width of every figure, in its own units.
    static constexpr double WIDTH = 960;

    enum Shape { Dots, Line, Band, Mark };
    /// One entry of the legend.
    struct Key {
        Shape shape;
        const char* ink; ///< a class of styleSheet()
        SxString text;
    };

    SxString heading;
    SxString label; ///< what it shows, for who can't see it
    std::vector<Key> keys;
    SxString body; ///< SVG elements
    double height = 0;

    /// An SVG document of figures below each other, with a title and a line of text.
    static SxString toDocument(const SxString& title, const SxString& note,
                               const std::vector<ZqFigure>& figures);
    /// A section of a page, with heading and legend.
    SxString toHtml() const;
    /// Colours and lines of figures for light and dark surroundings, as CSS.
    static SxString styleSheet();
    /// A text for XML and HTML, between tags or in double quotes: what has a meaning there, or isn't allowed,
    /// is written as an escape.
    static SxString escape(const SxString& text);
    /// A length or place for SVG, to a tenth of a unit.
    static SxString number(double value);
};
