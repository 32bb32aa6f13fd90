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

// The picture format ("svg" or "png") of the output `path`: `name` when
// given (--format), else by the name's ending. False when there is none.
bool PictureFormat(const std::string& name, const std::string& path, std::string& format);

// Draws the sections of `files[0]` (with those of the same name from
// `files[1]` over them, when given) as a picture in `format` ("svg" or "png").
// False with a one-line reason.
bool DrawPicture(const std::vector<PlotFile>& files, const std::string& format, std::string& picture,
                 std::string& error);

// The same drawing as the text of an SVG document (without its XML prolog),
// for embedding into a page.
bool DrawSvg(const std::vector<PlotFile>& files, std::string& svg, std::string& error);

// `text` reduced to what may go into a plot label: printable ASCII without
// markup characters or the plotting library's escape character.
std::string PlotText(const std::string& text);

}  // namespace qvrcs_tool
