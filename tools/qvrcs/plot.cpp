#include "tools/qvrcs/plot.h"

#include <plplot/plplot.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qvrcs_tool {
namespace {

constexpr int kPageWidth = 1200;
constexpr int kRowHeight = 300;
constexpr size_t kMaxDrawnPoints = 1200;  // per line; longer lines are drawn as their min/max envelope
// The legend's text size is relative to the page, not to the current character size.
constexpr PLFLT kLegendTextScale = 0.6;
constexpr size_t kLegendChannels = 12;  // channels named in a legend; past them, how many more

// Colour map 0: background, foreground, then one colour per channel.
constexpr int kBackground = 0;
constexpr int kForeground = 1;
constexpr int kProblemColour = 2;
constexpr int kFirstChannelColour = 3;
constexpr int kChannelColours = 12;
const PLINT kRed[] = {255, 0, 170, 31, 255, 44, 214, 148, 140, 227, 127, 188, 23, 0, 90};
const PLINT kGreen[] = {255, 0, 0, 119, 127, 160, 39, 103, 86, 119, 127, 189, 190, 0, 90};
const PLINT kBlue[] = {255, 0, 0, 180, 14, 44, 40, 189, 75, 194, 127, 34, 207, 128, 90};
static_assert(sizeof kRed / sizeof kRed[0] == kFirstChannelColour + kChannelColours, "one RGB per colour");

struct Box {
  double x0, x1, y0, y1;
};

// The points of a line, or the min/max envelope of buckets of it when it has
// more than kMaxDrawnPoints (the line then still reaches every extreme).
void Thin(const std::vector<double>& x, const std::vector<double>& y, std::vector<PLFLT>& xs, std::vector<PLFLT>& ys) {
  xs.clear();
  ys.clear();
  const size_t n = std::min(x.size(), y.size());
  if (n <= kMaxDrawnPoints) {
    xs.assign(x.begin(), x.begin() + static_cast<long>(n));
    ys.assign(y.begin(), y.begin() + static_cast<long>(n));
    return;
  }
  const size_t buckets = kMaxDrawnPoints / 2;
  for (size_t b = 0; b < buckets; ++b) {
    const size_t first = b * n / buckets;
    const size_t end = std::max(first + 1, (b + 1) * n / buckets);
    size_t lo = first;
    size_t hi = first;
    for (size_t i = first; i < end; ++i) {
      if (y[i] < y[lo]) lo = i;
      if (y[i] > y[hi]) hi = i;
    }
    for (size_t i : {std::min(lo, hi), std::max(lo, hi)}) {
      xs.push_back(x[i]);
      ys.push_back(y[i]);
    }
  }
}

void Line(const std::vector<double>& x, const std::vector<double>& y, int colour, int style) {
  std::vector<PLFLT> xs;
  std::vector<PLFLT> ys;
  Thin(x, y, xs, ys);
  if (xs.size() == 1) {  // one tap: a short flat stroke, so that it shows
    xs.push_back(xs[0]);
    ys.push_back(ys[0]);
  }
  if (xs.empty()) return;
  plcol0(colour);
  pllsty(style);
  plline(static_cast<PLINT>(xs.size()), xs.data(), ys.data());
  pllsty(1);
}

void Frame(const Box& box, double xmin, double xmax, double ymin, double ymax, const char* xopt, const char* xlabel,
           const char* ylabel) {
  plvpor(box.x0, box.x1, box.y0, box.y1);
  plwind(xmin, xmax, ymin, ymax);
  plcol0(kForeground);
  plbox(xopt, 0, 0, "bcgnstv", 0, 0);
  plmtex("b", 3.0, 0.5, 0.5, xlabel);
  plmtex("l", 5.4, 0.5, 0.5, ylabel);
}

// One line of a legend: its text, colour (-1: text only) and line style.
struct LegendEntry {
  std::string label;
  PLINT colour;
  PLINT style;
};

// Draws `entries` at `position` of the current panel, in two columns when
// there are more than six.
void Legend(const std::vector<LegendEntry>& entries, PLINT position, PLFLT textScale) {
  if (entries.empty()) return;
  std::vector<const char*> text;
  std::vector<PLINT> options;
  std::vector<PLINT> colours;
  std::vector<PLINT> styles;
  for (const LegendEntry& e : entries) {
    text.push_back(e.label.c_str());
    options.push_back(e.colour < 0 ? PL_LEGEND_NONE : PL_LEGEND_LINE);
    colours.push_back(e.colour < 0 ? kForeground : e.colour);
    styles.push_back(e.style);
  }
  const std::vector<PLFLT> widths(entries.size(), 1.0);
  const std::vector<PLINT> textColours(entries.size(), kForeground);
  const PLINT columns = entries.size() > 6 ? 2 : 1;
  const PLINT rows = static_cast<PLINT>((entries.size() + static_cast<size_t>(columns) - 1) / static_cast<size_t>(columns));
  PLFLT width = 0;
  PLFLT height = 0;
  pllegend(&width, &height, PL_LEGEND_BACKGROUND | PL_LEGEND_BOUNDING_BOX, position, 0.01, 0.0, 0.03, kBackground,
           kForeground, 1, rows, columns, static_cast<PLINT>(entries.size()), options.data(), 0.5, textScale, 2.0,
           0.0, textColours.data(), text.data(), nullptr, nullptr, nullptr, nullptr, colours.data(), styles.data(),
           widths.data(), nullptr, nullptr, nullptr, nullptr);
}

int ColourOf(size_t channel) { return kFirstChannelColour + static_cast<int>(channel % kChannelColours); }

// Two lines: the section and the record in it; what is wrong with it.
std::string Title(const FilterResponse& f) {
  return f.section + ": " +
         (f.facts.source.empty() ? (f.facts.known ? "nothing loaded" : "as the payload holds it") : f.facts.source);
}
std::string Subtitle(const FilterResponse& f) {
  std::string line;
  for (const std::string& p : f.problems) line += (line.empty() ? "" : "; ") + p;
  for (const std::string& n : f.facts.notes) line += (line.empty() ? "" : "; ") + n;
  return line;
}

const FilterResponse* Find(const PlotFile& file, const std::string& section) {
  for (const FilterResponse& f : file.filters) {
    if (f.section == section) return &f;
  }
  return nullptr;
}

void Row(const std::vector<PlotFile>& files, const FilterResponse& f, size_t row, size_t rows) {
  const double height = 1.0 / static_cast<double>(rows);
  const double top = 1.0 - static_cast<double>(row) * height;
  const double y0 = top - 0.80 * height;
  const double y1 = top - 0.26 * height;
  const bool measured = !f.facts.measuredDb.empty();
  const Box impulse = measured ? Box{0.07, 0.33, y0, y1} : Box{0.07, 0.42, y0, y1};
  const Box magnitude = measured ? Box{0.41, 0.67, y0, y1} : Box{0.50, 0.78, y0, y1};
  const Box curve{0.75, 0.97, y0, y1};

  std::vector<const FilterResponse*> drawn;
  for (const PlotFile& file : files) drawn.push_back(Find(file, f.section));

  // Impulse responses.
  double tmax = 0;
  double amax = 0;
  for (const FilterResponse* d : drawn) {
    if (d == nullptr) continue;
    for (const ChannelResponse& c : d->channels) {
      if (!c.timeMs.empty()) tmax = std::max(tmax, c.timeMs.back());
      for (double a : c.amplitude) amax = std::max(amax, std::fabs(a));
    }
  }
  if (tmax <= 0) tmax = 1;
  amax = amax > 0 ? amax * 1.05 : 1;
  Frame(impulse, 0, tmax, -amax, amax, "bcgnst", "time (ms)", "amplitude");
  for (size_t i = 0; i < drawn.size(); ++i) {
    if (drawn[i] == nullptr) continue;
    for (size_t c = 0; c < drawn[i]->channels.size(); ++c) {
      const ChannelResponse& ch = drawn[i]->channels[c];
      Line(ch.timeMs.empty() ? std::vector<double>{0, tmax} : ch.timeMs,
           ch.amplitude.empty() ? std::vector<double>{0, 0} : ch.amplitude, ColourOf(c), i == 0 ? 1 : 2);
    }
  }
  plcol0(kForeground);
  plmtex("t", 2.6, 0.0, 0.0, PlotText(Title(f)).c_str());
  plcol0(kProblemColour);
  std::string problems;
  for (size_t i = 0; i < drawn.size(); ++i) {
    const std::string line = drawn[i] != nullptr ? Subtitle(*drawn[i]) : std::string();
    if (line.empty()) continue;
    problems += (problems.empty() ? "" : " | ") + (drawn.size() > 1 ? (i == 0 ? "solid: " : "dashed: ") + line : line);
  }
  plmtex("t", 1.1, 0.0, 0.0, PlotText(problems).c_str());

  // Magnitude responses, frequency on a log axis.
  const double fmax = f.rate / 2.0;
  Frame(magnitude, std::log10(kLowestHz), std::log10(fmax), kFloorDb, 5, "bcglnst", "frequency (Hz)",
        "dB re peak");
  for (size_t i = 0; i < drawn.size(); ++i) {
    if (drawn[i] == nullptr) continue;
    for (size_t c = 0; c < drawn[i]->channels.size(); ++c) {
      const ChannelResponse& ch = drawn[i]->channels[c];
      std::vector<double> logf;
      for (double hz : ch.frequencyHz) logf.push_back(std::log10(hz));
      Line(logf, ch.magnitudeDb, ColourOf(c), i == 0 ? 1 : 2);
    }
  }

  // Legends: the channels' colours beside the panel (on it when the measured
  // curve takes the room); which file is dashed below that, in the margin
  // between the rows, so that the file names do not widen the channels'
  // columns off the page.
  std::vector<LegendEntry> channels;
  const size_t shown = f.channels.size() > kLegendChannels ? kLegendChannels - 1 : f.channels.size();
  for (size_t c = 0; c < shown; ++c) channels.push_back({PlotText(f.channels[c].label), ColourOf(c), 1});
  if (shown < f.channels.size()) {
    channels.push_back({std::to_string(f.channels.size() - shown) + " more", -1, 1});
  }
  const PLFLT textScale = rows == 1 ? kLegendTextScale * 0.85 : kLegendTextScale;
  Legend(channels, measured ? PL_POSITION_INSIDE | PL_POSITION_BOTTOM | PL_POSITION_RIGHT
                            : PL_POSITION_OUTSIDE | PL_POSITION_RIGHT,
         textScale);
  std::vector<LegendEntry> styles;
  for (size_t i = 0; files.size() > 1 && i < files.size(); ++i) {
    const size_t slash = files[i].name.rfind('/');
    const std::string name = slash == std::string::npos ? files[i].name : files[i].name.substr(slash + 1);
    styles.push_back({PlotText((i == 0 ? "solid: " : "dashed: ") + name), kForeground, i == 0 ? 1 : 2});
  }
  Legend(styles, measured ? PL_POSITION_INSIDE | PL_POSITION_BOTTOM | PL_POSITION_LEFT
                          : PL_POSITION_OUTSIDE | PL_POSITION_RIGHT | PL_POSITION_BOTTOM,
         textScale);

  if (measured) {
    const std::vector<double>& db = f.facts.measuredDb;
    double lo = *std::min_element(db.begin(), db.end());
    double hi = *std::max_element(db.begin(), db.end());
    if (!(hi > lo)) {
      lo -= 1;
      hi += 1;
    }
    const double pad = (hi - lo) * 0.05;
    const double last = db.size() > 1 ? static_cast<double>(db.size() - 1) : 1.0;
    Frame(curve, 0, last, lo - pad, hi + pad, "bcgnst", "point of responseDb", "dB (measured)");
    std::vector<double> index;
    for (size_t i = 0; i < db.size(); ++i) index.push_back(static_cast<double>(i));
    Line(index, db, kForeground, 1);
    plcol0(kForeground);
    plmtex("t", 1.1, 0.0, 0.0, "measured responseDb, by point");
  }
}

bool HasDevice(const char* device) {
  const char* menus[64];
  const char* names[64];
  const char** menu = menus;
  const char** name = names;
  int count = 64;
  plgDevs(&menu, &name, &count);
  for (PLINT i = 0; i < count; ++i) {
    if (std::strcmp(names[i], device) == 0) return true;
  }
  return false;
}

// Draws into `picture` with the plotting library's `device`. The library
// writes to a stream in memory and closes it at plend: no file is touched.
bool Draw(const std::vector<PlotFile>& files, const char* device, std::string& picture, std::string& error) {
  if (files.empty() || files[0].filters.empty()) {
    error = "nothing to plot";
    return false;
  }
  if (!HasDevice(device)) {
    error = std::string("the plotting library has no \"") + device + "\" output";
    return false;
  }
  char* bytes = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&bytes, &size);
  if (stream == nullptr) {
    error = std::string("cannot draw: ") + std::strerror(errno);
    return false;
  }
  const size_t rows = files[0].filters.size();
  plsdev(device);
  plsfile(stream);
  plspage(0, 0, kPageWidth, static_cast<PLINT>(kRowHeight * rows), 0, 0);
  plscmap0(kRed, kGreen, kBlue, kFirstChannelColour + kChannelColours);
  plinit();
  plschr(0, 0.6);
  pladv(0);
  for (size_t r = 0; r < rows; ++r) Row(files, files[0].filters[r], r, rows);
  plend();  // closes `stream`
  picture.assign(bytes != nullptr ? bytes : "", size);
  std::free(bytes);
  if (picture.empty()) {
    error = std::string("the plotting library wrote no ") + device + " picture";
    return false;
  }
  return true;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::string PlotText(const std::string& text) {
  constexpr size_t kLongest = 150;  // characters that fit across the page
  if (text.size() > kLongest) return PlotText(text.substr(0, kLongest - 3)) + "...";
  std::string safe;
  for (char ch : text) {
    const bool printable = ch >= ' ' && ch <= '~';
    safe += printable && !std::strchr("<>&#\\", ch) ? ch : '?';
  }
  return safe;
}

bool PictureFormat(const std::string& name, const std::string& path, std::string& format) {
  format = name;
  if (format.empty()) format = EndsWith(path, ".svg") ? "svg" : EndsWith(path, ".png") ? "png" : "";
  return format == "svg" || format == "png";
}

bool DrawPicture(const std::vector<PlotFile>& files, const std::string& format, std::string& picture,
                 std::string& error) {
  return Draw(files, format == "png" ? "pngcairo" : "svg", picture, error);
}

bool DrawSvg(const std::vector<PlotFile>& files, std::string& svg, std::string& error) {
  if (!Draw(files, "svg", svg, error)) return false;
  const size_t start = svg.find("<svg");
  if (start == std::string::npos) {
    error = "the plotting library wrote no SVG";
    return false;
  }
  svg.erase(0, start);
  return true;
}

}  // namespace qvrcs_tool
