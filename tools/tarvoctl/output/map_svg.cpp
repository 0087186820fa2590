#include "output/map_svg.hpp"

#include <fmt/format.h>
#include <string_view>

namespace tarvoctl {

namespace {

/// The rules for the dark come last, so that they win, and do not hold in print.
constexpr std::string_view style = R"(<style>
  .page { fill: #ffffff }
  text { fill: #000000; font-family: monospace; font-size: 12px }
  .heading { font-weight: bold }
  rect.even, rect.odd, rect.many, rect.overlapping, rect.unknown { stroke: #000000 }
  rect { stroke-width: 0.75 }
  .even { fill: #dce9f7 } .odd { fill: #a8c8ea }
  .free { fill: #ffffff; stroke: #808080; stroke-dasharray: 4 3 }
  .many { fill: url(#many) } .overlapping { fill: #ffb3a7 } .unknown { fill: #d9d9d9 }
  line { stroke: #606060; stroke-width: 0.75 }
  .stripe { stroke: #9db4cc; stroke-width: 0.75 }
  .stripes { fill: #dce9f7 }
  .mark { fill: #ffffff; stroke: #000000 }
  .number { font-size: 9px; text-anchor: middle }
  @media screen and (prefers-color-scheme: dark) {
    .page, .free, .mark { fill: #14171c }
    text { fill: #f2f2f2 }
    rect.even, rect.odd, rect.many, rect.overlapping, rect.unknown, .mark { stroke: #d0d0d0 }
    .even, .stripes { fill: #1f3a57 } .odd { fill: #335f8c }
    .overlapping { fill: #8a2b1f } .unknown { fill: #4a4a4a }
    .free { stroke: #909090 }
    line { stroke: #a0a0a0 }
    .stripe { stroke: #46688c }
  }
</style>
<defs><pattern id="many" width="6" height="6" patternUnits="userSpaceOnUse">
  <rect class="stripes" width="6" height="6"/><path class="stripe" d="M0 6L6 0"/>
</pattern></defs>
)";

/// What stands for itself in a document. Names have none of the characters that XML refuses: they
/// are `shown`.
std::string escaped(std::string_view text) {
    std::string made;
    for (const char each : text) {
        if (each == '&' || each == '<' || each == '>' || each == '"') {
            made += fmt::format("&#{};", static_cast<int>(each));
        } else {
            made += each;
        }
    }
    return made;
}

const char* class_of(map_look look) {
    switch (look) {
    case map_look::even:
        return "even";
    case map_look::odd:
        return "odd";
    case map_look::many:
        return "many";
    case map_look::free:
        return "free";
    case map_look::overlapping:
        return "overlapping";
    case map_look::unknown:
        break;
    }
    return "unknown";
}

std::string svg_of(const map_box& box) {
    return fmt::format("<rect class=\"{}\" x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" "
                       "height=\"{:.2f}\"><title>{}</title></rect>\n",
                       class_of(box.look), box.x, box.y, box.width, box.height, escaped(box.title));
}

std::string svg_of(const map_line& line) {
    return fmt::format("<line x1=\"{0:.2f}\" y1=\"{1:.2f}\" x2=\"{0:.2f}\" y2=\"{2:.2f}\"/>\n",
                       line.x, line.from_y, line.to_y);
}

std::string svg_of(const map_text& text) {
    return fmt::format("<text {}x=\"{:.2f}\" y=\"{:.2f}\">{}</text>\n",
                       text.is_heading ? "class=\"heading\" " : "", text.x, text.y,
                       escaped(text.text));
}

std::string svg_of(const map_mark& mark) {
    constexpr double half = map_mark_size / 2;
    const std::string shape =
        mark.is_device
            ? fmt::format(R"(<rect class="mark" x="{:.2f}" y="{:.2f}" width="{}" height="{}"/>)",
                          mark.x, mark.y, map_mark_size, map_mark_size)
            : fmt::format(R"(<circle class="mark" cx="{:.2f}" cy="{:.2f}" r="{}"/>)", mark.x + half,
                          mark.y + half, half);
    constexpr double base_line = 10;
    return shape + fmt::format("<text class=\"number\" x=\"{:.2f}\" y=\"{:.2f}\">{}</text>\n",
                               mark.x + half, mark.y + base_line, escaped(mark.number));
}

template <typename Items>
void append(std::string& made, const Items& items) {
    for (const auto& each : items) {
        made += svg_of(each);
    }
}

} // namespace

std::string svg_of(const map_page& page) {
    std::string made =
        fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:.0f} {1:.0f}\" "
                    "width=\"{0:.0f}\" height=\"{1:.0f}\">\n"
                    "<title>The region that tarvo hands out</title>\n",
                    page.width, page.height);
    made += style;
    made += "<rect class=\"page\" width=\"100%\" height=\"100%\"/>\n";
    append(made, page.boxes);
    append(made, page.lines);
    append(made, page.texts);
    append(made, page.marks);
    return made + "</svg>\n";
}

} // namespace tarvoctl
