#include "evctl/views/svg.h"

#include "common/text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace evctl {
namespace {

// Without the style the picture is for light paper; a viewer that prefers dark takes the style,
// too.
constexpr char STYLE_AND_PATTERNS[] =
    R"svg(<style>
@media (prefers-color-scheme: dark) {
.paper { fill: #17191d }
text, .mark { fill: #e8e8e8 }
.edge { stroke: #b0b0b0 }
.light { fill: #4a78a6 }
.dark { fill: #ffc9c9 }
.stripes { fill: #e0b040 }
.between { fill: #3a3218 }
.dots { fill: #d0d0d0 }
.crosses { stroke: #ff6060 }
.lines { stroke: #a0a0a0 }
.bars { fill: #70b890 }
}
</style>
<defs>
<pattern id="stripes" width="6" height="6" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><rect class="between" width="6" height="6" fill="#fdf0c8"/><rect class="stripes" width="3" height="6" fill="#a87800"/></pattern>
<pattern id="dots" width="5" height="5" patternUnits="userSpaceOnUse"><circle class="dots" cx="2" cy="2" r="0.9" fill="#777"/></pattern>
<pattern id="crosses" width="6" height="6" patternUnits="userSpaceOnUse"><path class="crosses" d="M0 0L6 6M6 0L0 6" stroke="#c00000" stroke-width="1.2"/></pattern>
<pattern id="lines" width="4" height="4" patternUnits="userSpaceOnUse"><path class="lines" d="M0 2H4" stroke="#999" stroke-width="0.8"/></pattern>
<pattern id="bars" width="5" height="5" patternUnits="userSpaceOnUse"><rect class="bars" width="2" height="5" fill="#3d7a58"/></pattern>
</defs>
)svg";

/** Class and paint of a filling. */
const char* paintOf(Filling filling) {
    constexpr std::array<const char*, 8> paints = {
        "edge light\" fill=\"#a9c8e6", "edge\" fill=\"url(#stripes)", "edge dark\" fill=\"#5b1a1a",
        "edge\" fill=\"url(#dots)",    "edge\" fill=\"none",          "edge\" fill=\"url(#crosses)",
        "edge\" fill=\"url(#lines)",   "edge\" fill=\"url(#bars)"};
    return paints.at(static_cast<size_t>(filling));
}

std::string numberText(double number) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.6g", number);
    return text.data();
}

/** ` name="12"` */
std::string attribute(const char* name, double number) {
    return std::string(" ") + name + "=\"" + numberText(number) + "\"";
}

} // namespace

std::string xmlText(const std::string& text) {
    std::string safe;
    for (char letter : tools::escapedUtf8(text)) {
        switch (letter) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += letter;
        }
    }
    return safe;
}

std::string Svg::titleOf(const std::string& path) {
    size_t name = path.find_last_of('/');
    size_t folder = name == std::string::npos || name == 0 ? std::string::npos
                                                           : path.find_last_of('/', name - 1);
    return folder == std::string::npos ? path : path.substr(folder + 1);
}

Svg::Svg(U32_t width, U32_t height, const std::string& title)
    : content_("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + std::to_string(width) +
               " " + std::to_string(height) + "\"" + attribute("width", width) +
               attribute("height", height) + " font-family=\"monospace\" font-size=\"11\">\n" +
               "<title>" + xmlText(title) + "</title>\n" + STYLE_AND_PATTERNS +
               "<rect class=\"paper\" width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n") {}

void Svg::box(double x, double y, double width, double height, Filling filling,
              const std::string& hint) {
    content_ += "<rect" + attribute("x", x) + attribute("y", y) + attribute("width", width) +
                attribute("height", height) + " class=\"" + paintOf(filling) +
                "\" stroke=\"#444\" stroke-width=\"0.4\"";
    content_ += hint.empty() ? "/>\n" : "><title>" + xmlText(hint) + "</title></rect>\n";
}

void Svg::text(double x, double y, const std::string& text, const char* anchor) {
    add("", x, y, text, anchor);
}

void Svg::heading(double x, double y, const std::string& text) {
    add(" font-weight=\"bold\"", x, y, text, "start");
}

void Svg::add(const char* weight, double x, double y, const std::string& text, const char* anchor) {
    content_ += "<text" + attribute("x", x) + attribute("y", y) + weight + " text-anchor=\"" +
                anchor + "\">" + xmlText(text) + "</text>\n";
}

void Svg::mark(double x, double y, double height, const std::string& hint) {
    std::string half = numberText(std::abs(height) * 0.7);
    content_ += "<path class=\"mark\" d=\"M" + numberText(x) + " " + numberText(y) + "l-" + half +
                " " + numberText(-height) + "h" + numberText(std::abs(height) * 1.4) + "z\"";
    content_ += hint.empty() ? "/>\n" : "><title>" + xmlText(hint) + "</title></path>\n";
}

} // namespace evctl
