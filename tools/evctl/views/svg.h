/**
 * @file
 * Pictures as SVG that can be read without colour: each filling is a pattern of its own. They are
 * dark where the viewer prefers that.
 */
#ifndef EVCTL_SVG_H
#define EVCTL_SVG_H

#include "fixed_width.h"

#include <string>

namespace evctl {

/** The fillings. */
enum class Filling : U8_t {
    LIGHT,   ///< pale, plain
    STRIPES, ///< slanted stripes
    DARK,    ///< dark, plain
    DOTS,    ///< dots
    NOTHING, ///< only the outline
    CROSSES, ///< crosses, for what is damaged
    LINES,   ///< thin level lines
    BARS,    ///< upright bars
};

/** A picture that grows; lengths are in pixels. */
class Svg {
  public:
    /** @param title of the picture */
    Svg(U32_t width, U32_t height, const std::string& title);

    /** What a picture of a file is called: its name and its folder's. The whole path of a
     * customer's machine is nobody's business where pictures are shown. */
    static std::string titleOf(const std::string& path);

    /** @param hint shown where the pointer rests; "" for nothing */
    void box(double x, double y, double width, double height, Filling filling,
             const std::string& hint);

    /** @param anchor "start", "middle" or "end": where the text stands to its place */
    void text(double x, double y, const std::string& text, const char* anchor = "start");

    /** A text that stands out. */
    void heading(double x, double y, const std::string& text);

    /** A triangle with its point at this place. @param height above it; negative: below */
    void mark(double x, double y, double height, const std::string& hint);

    /** The whole picture. */
    std::string picture() const { return content_ + "</svg>\n"; }

  private:
    void add(const char* weight, double x, double y, const std::string& text, const char* anchor);

    std::string content_;
};

/** A text as it may stand in XML; control characters are escaped as \\xNN first. */
std::string xmlText(const std::string& text);

} // namespace evctl

#endif
