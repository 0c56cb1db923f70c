#include "evctl/svg.h"

#include "common/text.h"

#include <array>
#include <cstdio>

namespace evctl {
namespace {

constexpr char PATTERNS[] =
    R"svg(<defs>
<pattern id="stripes" width="6" height="6" patternUnits="userSpaceOnUse" patternTransform="rotate(45)"><rect width="6" height="6" fill="#fdf0c8"/><rect width="3" height="6" fill="#b8860b"/></pattern>
<pattern id="dots" width="5" height="5" patternUnits="userSpaceOnUse"><rect width="5" height="5" fill="#fff"/><circle cx="2" cy="2" r="0.8" fill="#999"/></pattern>
<pattern id="crosses" width="6" height="6" patternUnits="userSpaceOnUse"><rect width="6" height="6" fill="#fff"/><path d="M0 0L6 6M6 0L0 6" stroke="#c00000" stroke-width="1.2"/></pattern>
</defs>
)svg";

const char* paintOf(Filling filling) {
    constexpr std::array<const char*, 6> paints = {"#cfe2f3",    "url(#stripes)", "#5b1a1a",
                                                   "url(#dots)", "none",          "url(#crosses)"};
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

Svg::Svg(U32_t width, U32_t height, const std::string& title)
    : content_("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + std::to_string(width) +
               " " + std::to_string(height) + "\"" + attribute("width", width) +
               attribute("height", height) + " font-family=\"monospace\" font-size=\"11\">\n" +
               "<title>" + xmlText(title) + "</title>\n" + PATTERNS +
               "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n") {}

void Svg::box(double x, double y, double width, double height, Filling filling,
              const std::string& hint, bool pale) {
    content_ += "<rect" + attribute("x", x) + attribute("y", y) + attribute("width", width) +
                attribute("height", height) + " fill=\"" + paintOf(filling) +
                "\" stroke=\"#444\" stroke-width=\"0.3\"" + (pale ? " opacity=\"0.55\"" : "");
    content_ += hint.empty() ? "/>\n" : "><title>" + xmlText(hint) + "</title></rect>\n";
}

void Svg::text(double x, double y, const std::string& text, const char* anchor) {
    content_ += "<text" + attribute("x", x) + attribute("y", y) + " text-anchor=\"" + anchor +
                "\">" + xmlText(text) + "</text>\n";
}

} // namespace evctl
