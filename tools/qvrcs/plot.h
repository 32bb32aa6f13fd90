// Pictures of the filters the DSP receives (tools/qvrcs/response.h): per
// section a row of panels, the impulse responses over time, their magnitude
// responses on a logarithmic frequency axis and, for a headphone EQ that
// carries one, its measured response curve. A second file is drawn over the
// first with dashed lines.
#pragma once

#include <string>
#include <vector>

#include "tools/qvrcs/response.h"

namespace qvrcs_tool {

struct PlotFile {
  std::string name;  // shown in the legend of an overlay (any text: it is made safe)
  std::vector<FilterResponse> filters;
};

// Draws the sections of `files[0]` (with those of the same name from
// `files[1]` over them, when given) into `path`, an .svg or .png file, written
// whole or not at all. False with a one-line reason.
bool DrawToFile(const std::vector<PlotFile>& files, const std::string& path, std::string& error);

// The same drawing as the text of an SVG document (without its XML prolog),
// for embedding into a page.
bool DrawSvg(const std::vector<PlotFile>& files, std::string& svg, std::string& error);

// `text` reduced to what may go into a plot label: printable ASCII without
// markup characters or the plotting library's escape character.
std::string PlotText(const std::string& text);

}  // namespace qvrcs_tool
