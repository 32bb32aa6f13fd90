// qvrcs plot and report: the responses behind the plots for rooms made of
// known impulses, a swapped pair, headphone EQs, bad input, every example and
// crafted failure files, markup in names, and the page in a real browser.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <png.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "block_support.h"
#include "configurator/config_file.h"
#include "configurator/tuning_reader.h"
#include "qvrcsPB.pb.h"
#include "test_support.h"
#include "tool_run.h"
#include "tools/qvrcs/report.h"
#include "tools/qvrcs/tool.h"
#include "tools/qvrcs/tuning.h"

// The PNG output keeps caches of the drawing libraries that are never freed
// (fontconfig's font set, libltdl's loaded modules): not leaks of ours.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libltdl.so\n";
}

namespace {

namespace fs = std::filesystem;
using qvrcs::block_test::AddTable16;
using qvrcs::block_test::Ramp;
using com::qvr::pb::wbn::Qvrcs;
using qvr_test::ReadFile;
using qvr_test::PostmixOf;
using qvr_test::SettingsOf;
using qvr_test::WriteFile;
using qvrcs_tool::ChannelResponse;
using qvrcs_tool::FilterResponse;

constexpr const char* kUuid = "6f1c2a3b-0000-4000-8000-00000000b001";
constexpr int32_t kUnit = 16384;  // 0.5 full scale
constexpr size_t kTaps = 64;

std::vector<int32_t> Impulse(size_t at, std::vector<int32_t> taps = {kUnit}) {
  std::vector<int32_t> values(kTaps, 0);
  for (size_t i = 0; i < taps.size(); ++i) values[at + i] = taps[i];
  return values;
}

std::vector<int32_t> Concat(const std::vector<std::vector<int32_t>>& parts) {
  std::vector<int32_t> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}


// A tuning file whose front room holds `values` and says `pairs` x 2 x kTaps.
Qvrcs RoomTuning(const std::vector<int32_t>& values, uint32_t pairs) {
  Qvrcs tuning = qvr_test::TuningWith({});
  auto* room = PostmixOf(tuning).mutable_model()->add_rooms();
  room->set_uuid(kUuid);
  room->set_numpairs(pairs);
  room->set_brirlength(kTaps);
  AddTable16(room->mutable_coefftables(), 48000, values);
  PostmixOf(tuning).add_frontroom()->set_uuid(kUuid);
  return tuning;
}

std::vector<FilterResponse> Filters(const Qvrcs& tuning, const std::vector<std::string>& sections) {
  qvrcs_tool::Input input;
  input.reading = std::make_unique<qvr::TuningReading>();
  input.reading->message = tuning;
  return qvrcs_tool::FiltersOf(input, sections);
}

// Magnitude of `c` at the bin nearest `hz`.
double DbAt(const ChannelResponse& c, double hz) {
  size_t best = 0;
  for (size_t i = 0; i < c.frequencyHz.size(); ++i) {
    if (std::fabs(c.frequencyHz[i] - hz) < std::fabs(c.frequencyHz[best] - hz)) best = i;
  }
  return c.magnitudeDb.at(best);
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const auto& l : lines) all += l + "\n";
  return all;
}

TEST(FilterResponseTest, KnownImpulsesGiveTheirMagnitudes) {
  // Pair 0: a unit impulse and the same delayed by half a millisecond;
  // pair 1: a two-tap average and silence.
  const size_t delay = qvr::kDspSampleRate / 2000;
  const auto filters = Filters(
      RoomTuning(Concat({Impulse(0), Impulse(delay), Impulse(0, {kUnit, kUnit}), Impulse(0, {0})}), 2),
      {"front_room"});
  ASSERT_EQ(filters.size(), 1u);
  const FilterResponse& room = filters[0];
  EXPECT_EQ(Joined(room.problems), "");
  ASSERT_EQ(room.channels.size(), 4u);
  const ChannelResponse& unit = room.channels[0];
  const ChannelResponse& delayed = room.channels[1];
  const ChannelResponse& average = room.channels[2];
  EXPECT_EQ(unit.label, "pair 0 L");
  EXPECT_EQ(average.label, "pair 1 L");
  EXPECT_EQ(delayed.taps.size(), kTaps);
  EXPECT_DOUBLE_EQ(delayed.timeMs[delay], 0.5);
  EXPECT_DOUBLE_EQ(delayed.amplitude[delay], 0.5);
  const double nyquist = qvr::kDspSampleRate / 2.0;
  EXPECT_DOUBLE_EQ(unit.frequencyHz.back(), nyquist);
  for (double hz : {100.0, 1000.0, 10000.0, nyquist}) {
    EXPECT_NEAR(DbAt(unit, hz), 0, 1e-4) << hz;
    EXPECT_NEAR(DbAt(delayed, hz), 0, 1e-4) << hz;
  }
  EXPECT_NEAR(DbAt(average, 100), 0, 0.01);
  EXPECT_NEAR(DbAt(average, 12000), -3.01, 0.05);  // cos(pi/4)
  EXPECT_EQ(DbAt(average, nyquist), qvrcs_tool::kFloorDb);
  EXPECT_TRUE(room.channels[3].allZero);
  EXPECT_EQ(DbAt(room.channels[3], 1000), qvrcs_tool::kFloorDb);
  EXPECT_FALSE(room.allZero);

  // A room of zeros lies on the floor, and says so.
  const auto zeros = Filters(RoomTuning(std::vector<int32_t>(2 * kTaps, 0), 1), {"front_room"});
  EXPECT_TRUE(zeros[0].allZero);
  EXPECT_EQ(zeros[0].problems.at(0), "all zeros");
  for (const ChannelResponse& c : zeros[0].channels) {
    for (double db : c.magnitudeDb) ASSERT_EQ(db, qvrcs_tool::kFloorDb);
  }
}

TEST(FilterResponseTest, ChannelsFollowTheHeaderAndSayWhenTheCountDiffers) {
  // A swapped pair shows swapped.
  const auto a = Filters(RoomTuning(Concat({Impulse(0), Impulse(5)}), 1), {});
  const auto b = Filters(RoomTuning(Concat({Impulse(5), Impulse(0)}), 1), {});
  ASSERT_EQ(a.size(), 4u);  // three rooms and the headphone EQ, in block order
  EXPECT_EQ(a[1].section, "front_room");
  EXPECT_EQ(a[1].channels[0].taps, b[1].channels[1].taps);
  EXPECT_EQ(a[1].channels[1].taps, b[1].channels[0].taps);
  EXPECT_NE(a[1].channels[0].taps, b[1].channels[0].taps);
  EXPECT_EQ(a[0].problems, std::vector<std::string>{"all zeros"});
  EXPECT_EQ(a[0].facts.source, "");  // the multichannel slot: nothing loaded

  // Values that do not make numPairs x 2 x brirLength: plotted as they are.
  const auto odd = Filters(RoomTuning(Ramp(100, 1), 1), {"front_room"});
  EXPECT_EQ(Joined(odd[0].problems),
            "100 values, but numPairs x 2 x brirLength = 128\npair 0 R holds 36 of 64 values\n");
  ASSERT_EQ(odd[0].channels.size(), 2u);
  EXPECT_EQ(odd[0].channels[1].taps.size(), 36u);
  EXPECT_EQ(odd[0].channels[1].taps.back(), 100);
}

TEST(FilterResponseTest, HeadphoneEqChannelsAreTheHalvesAfterC0AndC1) {
  Qvrcs tuning = qvr_test::TuningWith({});
  auto* eq = PostmixOf(tuning).mutable_model()->add_headphones();
  eq->set_uuid(kUuid);
  eq->set_ihpirlength(256);
  AddTable16(eq->mutable_coefftables(), 48000, Ramp(514, 0));
  eq->mutable_supplementaldata()->add_responsedb(-1.5);
  eq->mutable_supplementaldata()->add_responsedb(2.0);
  PostmixOf(tuning).add_hpeqcoef()->set_uuid(kUuid);
  auto hpeq = Filters(tuning, {"hpeq"});
  ASSERT_EQ(hpeq.size(), 1u);
  ASSERT_EQ(hpeq[0].channels.size(), 2u);
  // Cut to 128 taps per channel: table values 2..129 and 258..385.
  EXPECT_EQ(hpeq[0].channels[0].taps.front(), 2);
  EXPECT_EQ(hpeq[0].channels[0].taps.back(), 129);
  EXPECT_EQ(hpeq[0].channels[1].taps.front(), 258);
  EXPECT_EQ(hpeq[0].channels[1].taps.back(), 385);
  EXPECT_EQ(hpeq[0].facts.measuredDb, (std::vector<double>{-1.5, 2.0}));
  EXPECT_NE(hpeq[0].header.find("length 128, c0 0, c1 1"), std::string::npos) << hpeq[0].header;

  // The short form with a table shorter than ihpirLength asks for.
  eq->set_ihpirlength(20);
  eq->mutable_coefftables(0)->clear_coeff_16();
  for (int32_t v : Ramp(32, 0)) eq->mutable_coefftables(0)->add_coeff_16(v);
  hpeq = Filters(tuning, {"hpeq"});
  EXPECT_EQ(hpeq[0].channels[0].taps.size(), 15u);
  EXPECT_EQ(hpeq[0].channels[1].taps.front(), 17);
  EXPECT_EQ(Joined(hpeq[0].problems), "30 values after c0, c1, but ihpirLength 20 asks for 40\n");
}

// ---- the commands --------------------------------------------------------------

class FilterCommandTest : public qvr_test::ScratchDirTest {
 protected:
  std::string WriteTuning(const std::string& name, const Qvrcs& tuning) {
    return Write(name, tuning.SerializeAsString());
  }

  void WriteConfig(const std::vector<std::string>& files) { Write("configurator.cfg", SlotConfig(files)); }
};

// Plots go through the same conversion and drawing as the report's (its
// command line: qvrcs_output_test), so the report of the example set and of
// crafted files draws every one of them.
TEST_F(FilterCommandTest, PlotAndReportTakeEveryExampleAndCraftedFailures) {
  // Files that fail to convert, or convert into something odd.
  Qvrcs unknownRoom = RoomTuning(Impulse(0), 1);
  PostmixOf(unknownRoom).mutable_frontroom(0)->set_uuid("unknown");
  Qvrcs tooLarge = RoomTuning(Ramp(6151, 1), 1);
  Qvrcs wrapping = RoomTuning(Ramp(128, 70000), 1);
  Qvrcs shortHpeqOverrun = qvr_test::TuningWith({});
  auto* eq = PostmixOf(shortHpeqOverrun).mutable_model()->add_headphones();
  eq->set_ihpirlength(128);
  AddTable16(eq->mutable_coefftables(), 48000, Ramp(2000, 1));
  PostmixOf(shortHpeqOverrun).add_hpeqcoef();
  Qvrcs noWorkspace;
  noWorkspace.add_model()->set_description("no workspace");
  Qvrcs zeroLength = RoomTuning(Ramp(500, 1), 3);
  PostmixOf(zeroLength).mutable_model()->mutable_rooms(0)->set_brirlength(0);
  const std::vector<std::pair<std::string, const Qvrcs*>> crafted = {
      {"unknown_room.bin", &unknownRoom}, {"too_large.bin", &tooLarge},       {"zero_length.bin", &zeroLength},
      {"overrun.bin", &shortHpeqOverrun}, {"no_workspace.bin", &noWorkspace}, {"wrapping.bin", &wrapping}};
  std::vector<std::string> names;
  for (const auto& [name, tuning] : crafted) {
    WriteTuning(name, *tuning);
    names.push_back(name);
  }
  // Two files over each other.
  ToolRun run = RunTool({"plot", std::string(QVR_EXAMPLES_DIR) + "/max.bin", Path("wrapping.bin"), "hpeq", "front_room",
                         "-o", Path("both.svg")});
  EXPECT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
  EXPECT_EQ(run.err, Path("both.svg") + ": 2 sections of two files\n");

  WriteConfig(names);
  run = RunTool({"report", dir(), QVR_EXAMPLES_DIR, "-o", Path("report.html")});
  EXPECT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
  const std::string page = ReadFile(Path("report.html"));
  EXPECT_NE(page.find("FAILS: reader -4, postmix -999"), std::string::npos);
  EXPECT_NE(page.find("all zeros"), std::string::npos);
  EXPECT_NE(page.find("numPairs x 2 x brirLength = 0"), std::string::npos);
}

// ---- markup and the browser ----------------------------------------------------

constexpr const char* kMarkupUuid = "\"><script>alert(1)</script>";
constexpr const char* kMarkupName = "<script>document.title='ran'</script><b>bold</b>";

// A search path whose every slot names a file with markup in its name, holding
// a room and a headphone EQ with markup in their uuids and names.
class ReportPageTest : public FilterCommandTest {
 protected:
  std::string MakeReport() {
    Qvrcs tuning = RoomTuning(Concat({Impulse(0), Impulse(3, {kUnit, -kUnit})}), 1);
    auto* room = PostmixOf(tuning).mutable_model()->mutable_rooms(0);
    room->set_uuid(kMarkupUuid);
    room->set_name(kMarkupName);
    PostmixOf(tuning).mutable_frontroom(0)->set_uuid(kMarkupUuid);
    auto* eq = PostmixOf(tuning).mutable_model()->add_headphones();
    eq->set_uuid(kMarkupName);
    eq->set_ihpirlength(8);
    AddTable16(eq->mutable_coefftables(), 48000, Concat({{4096, 0}, Impulse(0), Impulse(2)}));
    PostmixOf(tuning).add_hpeqcoef()->set_uuid(kMarkupName);
    PostmixOf(tuning).add_wideroom()->set_uuid(kMarkupName);  // unknown: the slot fails
    const std::string file = "<i>x<i>&amp;.bin";
    WriteTuning(file, tuning);
    WriteConfig({file});
    const ToolRun run = RunTool({"report", dir(), "-o", Path("report.html")});
    EXPECT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
    return ReadFile(Path("report.html"));
  }
};

TEST_F(ReportPageTest, UntrustedTextIsEscaped) {
  const std::string page = MakeReport();
  EXPECT_NE(page.find("<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none';"),
            std::string::npos);
  EXPECT_EQ(page.find("<script"), std::string::npos);
  EXPECT_EQ(page.find("<b>"), std::string::npos);
  EXPECT_EQ(page.find("<i>"), std::string::npos);
  EXPECT_NE(page.find("&quot;&gt;&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  EXPECT_NE(page.find("&lt;i&gt;x&lt;i&gt;&amp;amp;.bin"), std::string::npos);
}

#ifdef QVR_CHROMIUM_EXE
// Runs headless chromium on `url` with `extra` flags; returns its standard
// output and puts its standard error (the page's console) into `console`.
std::string Chromium(const std::string& profile, const std::vector<std::string>& extra, const std::string& url,
                     const std::string& errFile, std::string& console) {
  std::string command = std::string(QVR_CHROMIUM_EXE) +
                        " --headless --no-sandbox --disable-gpu --disable-quic --no-first-run"
                        " --disable-background-networking --disable-component-update --disable-sync"
                        " --enable-logging=stderr --v=0 --user-data-dir='" +
                        profile + "'";
  for (const std::string& e : extra) command += " " + e;
  command += " '" + url + "' 2>'" + errFile + "'";
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  pclose(pipe);
  console = ReadFile(errFile);
  return out;
}

// Pixels of a PNG whose colour is strongly saturated: the plots' lines (the
// page itself is black, grey and white, apart from a few words of status).
size_t ColouredPixels(const std::string& path, size_t& total) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return 0;
  image.format = PNG_FORMAT_RGB;
  std::vector<png_byte> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) return 0;
  total = pixels.size() / 3;
  size_t coloured = 0;
  for (size_t i = 0; i + 2 < pixels.size(); i += 3) {
    const int r = pixels[i], g = pixels[i + 1], b = pixels[i + 2];
    if (std::max({r, g, b}) - std::min({r, g, b}) > 100) ++coloured;
  }
  return coloured;
}

TEST_F(ReportPageTest, TheBrowserShowsTheTextRunsNoScriptAndDrawsThePlots) {
  MakeReport();
  const std::string url = "file://" + Path("report.html");
  std::string console;
  const std::string dom = Chromium(
      Path("profile"), {"--dump-dom", "--window-size=1200,1600", "--screenshot=" + Path("shot.png")}, url,
      Path("err.txt"), console);
  EXPECT_NE(dom.find("<title>qvrcs report</title>"), std::string::npos) << dom.substr(0, 400);
  EXPECT_EQ(dom.find("<script"), std::string::npos);
  EXPECT_NE(dom.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  EXPECT_NE(dom.find("&lt;script&gt;document.title='ran'&lt;/script&gt;&lt;b&gt;bold&lt;/b&gt;"),
            std::string::npos);
  EXPECT_NE(dom.find("<svg"), std::string::npos);
  EXPECT_EQ(console.find("CONSOLE"), std::string::npos) << console;
  size_t total = 0;
  const size_t coloured = ColouredPixels(Path("shot.png"), total);
  EXPECT_EQ(total, 1200u * 1600u);
  EXPECT_GT(coloured, 5000u) << "the screenshot holds no plot lines";
  fs::remove_all(Path("profile"));
}
#endif

}  // namespace
