// What qvrcs writes and where: every command's output onto standard output,
// devices, FIFOs and links (the program run as a process, as root in CI),
// write errors on standard output and on a full or read-only disk, outputs
// that are inputs, inputs that cannot be read, usage errors, and check -j on
// threads (run under ThreadSanitizer by scripts/test.sh).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "configurator/config_file.h"
#include "configurator/payload.h"
#include "configurator/settings.h"
#include "test_support.h"
#include "tool_run.h"
#include "tools/qvrcs/tool.h"

// The PNG output keeps caches of the drawing libraries that are never freed.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\nleak:libltdl.so\n"; }

namespace {

namespace fs = std::filesystem;
using qvr_test::ReadFile;
using qvr_test::WriteFile;
using Args = std::vector<std::string>;

// The kind of a path itself (a link is a link).
fs::file_type KindOf(const std::string& path) { return fs::symlink_status(path).type(); }

class OutputTest : public qvr_test::ScratchDirTest {
 protected:
  void SetUp() override {
    ScratchDirTest::SetUp();
    tuning_ = Write("headphones.bin", ReadFile(std::string(QVR_EXAMPLES_DIR) + "/headphones.bin"));
    text_ = Write("headphones.textproto", RunTool({"dump", tuning_}).out);
    WriteFile(Path(qvr::kConfigFileName), SlotConfig({"headphones.bin"}));
  }

  // Every command that writes a file, with its output `out`.
  std::vector<Args> OutputCommands(const std::string& out) const {
    return {{"convert", tuning_, "-o", out}, {"encode", text_, "-o", out}, {"dump", tuning_, "-o", out},
            {"plot", text_, "hpeq", "--format", "svg", "-o", out}, {"report", dir(), "-o", out}};
  }

  // The program itself, its standard output opened on `out`; standard output
  // is in `out` when that is a regular file.
  ToolRun Program(const Args& args, const std::string& out) const {
    std::string command = QVR_QVRCS_EXE;
    for (const std::string& a : args) command += " '" + a + "'";
    const int status = std::system((command + " </dev/null >" + out + " 2>" + Path("err")).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
            KindOf(out) == fs::file_type::regular ? ReadFile(out) : "", ReadFile(Path("err"))};
  }

  std::string tuning_;
  std::string text_;
};

TEST_F(OutputTest, EveryOutputLandsWhereItIsAskedToAndNoPathChangesItsKind) {
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  WriteFile(Path("target"), "before");
  fs::create_symlink("target", Path("to-file"));
  fs::create_symlink("later/new", Path("to-missing"));
  fs::create_directory(Path("later"));
  const fs::file_type devStdout = KindOf("/dev/stdout");
  const Args targets = {"-", "/dev/stdout", "/dev/null", Path("fifo"), Path("to-file"), Path("to-missing")};
  for (size_t c = 0; c < OutputCommands("").size(); ++c) {
    ASSERT_EQ(Program(OutputCommands(Path("plain"))[c], Path("out")).status, 0);
    const std::string expected = ReadFile(Path("plain"));
    for (const std::string& target : targets) {
      const Args command = OutputCommands(target)[c];
      SCOPED_TRACE(command[0] + " -o " + target);
      fs::remove(Path("later/new"));
      // A FIFO is written as it is read; a writer's open waits for the reader.
      std::string fromFifo;
      std::thread reader([&] {
        const int fd = target == Path("fifo") ? open(target.c_str(), O_RDONLY) : -1;
        char buffer[65536];
        for (ssize_t n; fd >= 0 && (n = read(fd, buffer, sizeof buffer)) > 0;) fromFifo.append(buffer, size_t(n));
        close(fd);
      });
      const ToolRun run = Program(command, Path("out"));
      close(open(Path("fifo").c_str(), O_WRONLY | O_NONBLOCK));  // ends a reader no writer opened
      reader.join();
      if (devStdout == fs::file_type::symlink && KindOf("/dev/stdout") != devStdout) {
        fs::remove("/dev/stdout");  // put back for every other program what a fault replaced
        fs::create_symlink("/proc/self/fd/1", "/dev/stdout");
        ADD_FAILURE() << "/dev/stdout was replaced";
      }
      EXPECT_EQ(run.status, 0) << run.err;
      const std::string arrived = target == "-" || target == "/dev/stdout" ? run.out
                                  : target == Path("fifo")                 ? fromFifo
                                  : target == "/dev/null"                  ? expected
                                                                           : ReadFile(fs::weakly_canonical(target));
      EXPECT_TRUE(arrived == expected) << arrived.size() << " of " << expected.size() << " bytes arrived";
    }
    EXPECT_EQ(KindOf("/dev/null"), fs::file_type::character);
    EXPECT_EQ(KindOf(Path("fifo")), fs::file_type::fifo);
    EXPECT_EQ(KindOf(Path("to-file")), fs::file_type::symlink);
    EXPECT_EQ(KindOf(Path("to-missing")), fs::file_type::symlink);
  }
  // Nothing half-written is left beside an output.
  for (const auto& entry : fs::recursive_directory_iterator(dir())) {
    EXPECT_EQ(entry.path().filename().string().rfind(".qvrcs-", 0), std::string::npos) << entry.path();
  }
}

TEST_F(OutputTest, AWriteErrorIsSaidAndNothingHalfWrittenReplacesAnOutput) {
  // Standard output on a full device: every command that writes to it.
  WriteFile(Path("b.textproto"), ReadFile(text_) + "workspace {}\n");
  std::vector<Args> commands = {
      {"check", "--json", dir()}, {"explain", tuning_}, {"diff", tuning_, Path("b.textproto")}, {"dump", tuning_}};
  for (const Args& command : OutputCommands("-")) commands.push_back(command);
  commands.push_back({"convert", tuning_, "-o", "/dev/stdout"});
  for (const Args& command : commands) {
    const ToolRun run = Program(command, "/dev/full");
    EXPECT_EQ(run.status, qvrcs_tool::kExitBadInput) << command[0];
    EXPECT_EQ(run.err, "qvrcs: " + std::string(command.back() == "/dev/stdout" ? "/dev/stdout" : "-") +
                           ": cannot write: No space left on device\n");
  }

  // Files on a full disk, then on one mounted read-only.
  const std::string disk = Path("disk");
  fs::create_directory(disk);
  if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=512k") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here (" << std::strerror(errno) << "): run as root to test a full disk";
  }
  struct Unmount {
    std::string path;
    ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
  } unmount{disk};
  for (const Args& command : OutputCommands("")) WriteFile(disk + "/" + command[0], "before");
  const int fd = open((disk + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
  const std::string block(4096, 'x');
  while (write(fd, block.data(), block.size()) > 0) {
  }
  close(fd);
  for (const char* cause : {"No space left on device", "Read-only file system"}) {
    for (const Args& command : OutputCommands("")) {
      const std::string out = disk + "/" + command[0];
      Args args = command;
      args.back() = out;
      const ToolRun run = RunTool(args);
      EXPECT_EQ(run.status, qvrcs_tool::kExitBadInput);
      EXPECT_EQ(run.err, "qvrcs: " + out + ": cannot write: " + cause + "\n");
      EXPECT_EQ(ReadFile(out), "before");
    }
    ASSERT_EQ(mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << std::strerror(errno);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(disk), fs::directory_iterator()), 6);
}

TEST_F(OutputTest, RefusalsAndUsageErrorsAreOneLineWithTheirStatus) {
  fs::create_symlink(tuning_, Path("link.bin"));
  const std::string config = Path(qvr::kConfigFileName);
  const std::string before = ReadFile(tuning_) + ReadFile(text_) + ReadFile(config);
  WriteFile(Path("bad.json"), "{\n  \"workspace\": [\n    { x\n");
  WriteFile(Path("cut.bin"), "\x0a\x05");
  fs::create_directory(Path("later"));
  ASSERT_EQ(mkfifo(Path("fifo.bin").c_str(), 0600), 0);
  fs::create_symlink("/dev/zero", Path("zero.bin"));
  WriteFile(Path("zeros"), std::string(qvr::kCacheBlockSize, '\0'));  // a payload
  const std::string none = Path("none.bin");
  const std::string missing = ": cannot open: No such file or directory";
  const std::string unparsed =
      ": does not parse as a tuning file: the configurator uploads an all-zero payload; not device-side data";
  const std::string refused = ": is also an input: refusing to write over it";
  const std::string format = "--format: takes auto, binary, text or json, not \"xml\"";
  const std::vector<std::tuple<Args, int, std::string>> cases = {
      // Outputs that are inputs, also through links, or folders.
      {{"convert", tuning_, "-o", tuning_}, 3, tuning_ + refused},
      {{"dump", tuning_, "-o", Path("link.bin")}, 3, Path("link.bin") + refused},
      {{"encode", text_, "-o", text_}, 3, text_ + refused},
      {{"plot", tuning_, "--format", "png", "-o", Path("link.bin")}, 3, Path("link.bin") + refused},
      {{"report", dir(), "-o", config}, 3, config + refused},
      {{"report", dir(), "-o", Path("link.bin")}, 3, Path("link.bin") + refused},
      {{"convert", tuning_, "-o", dir()}, 3, dir() + ": is a directory, not a file"},
      // The command line.
      {{"check", "--format", "xml", tuning_}, 2, format},
      {{"explain", "--format", "xml", tuning_}, 2, format},
      {{"diff", "--format", "xml", tuning_, tuning_}, 2, format},
      {{"convert", "--format", "xml", tuning_, "-o", "-"}, 2, format},
      {{"dump", "--format", "xml", tuning_}, 2, format},
      {{"encode", "--format", "xml", text_, "-o", "-"}, 2, format},
      {{"plot", "--format", "pdf", tuning_, "-o", "-"}, 2, "--format: pdf not in {svg,png}"},
      {{"plot", tuning_, "-o", "-"}, 2, "plot -o - needs --format svg or png"},
      {{"plot", tuning_, "-o", Path("x.pdf")}, 2, Path("x.pdf") + ": the output must end in .svg or .png, or give"},
      {{"plot", tuning_, tuning_, tuning_, "-o", Path("x.svg")}, 2, "plot takes one file, or two"},
      {{"check", "-j", "0", dir()}, 2, "--jobs: Value 0 not in range 1 to 256"},
      {{}, 2, ""}, {{"frobnicate"}, 2, ""}, {{"check"}, 2, ""}, {{"explain", "a", "--bogus"}, 2, ""},
      {{"convert", "a.bin"}, 2, ""},
      {{"chek", dir()}, 2, "unknown command \"chek\"; did you mean \"check\"? (see qvrcs --help)"},
      // Inputs that cannot be read, drawn or taken for device-side data; none
      // that would never end is read.
      {{"plot", Path("cut.bin"), "-o", Path("x.svg")}, 3, Path("cut.bin") + unparsed},
      {{"explain", Path("cut.bin")}, 3, Path("cut.bin") + unparsed + " either (2 bytes)"},
      {{"diff", "--payload", Path("cut.bin"), Path("zeros")}, 3, Path("cut.bin") + ": not device-side data: 2 bytes"},
      {{"plot", none, "-o", Path("x.png")}, 3, none + missing},
      {{"explain", none}, 3, none + missing},
      {{"dump", none}, 3, none + missing},
      {{"convert", none, "-o", Path("x")}, 3, none + missing},
      {{"encode", none, "-o", Path("x")}, 3, none + missing},
      {{"dump", dir()}, 3, dir() + ": is a directory, not a file"},
      {{"explain", Path("fifo.bin")}, 3, Path("fifo.bin") + ": is a FIFO, not a regular file"},
      {{"explain", Path("zero.bin")}, 3, Path("zero.bin") + ": is a character device, not a regular file"},
      {{"report", Path("later"), "-o", Path("r.html")}, 3, Path("later") + ": no configurator.cfg to read"},
  };
  for (const auto& [args, status, error] : cases) {
    const ToolRun run = RunTool(args);
    EXPECT_EQ(run.status, status) << args[0];
    EXPECT_EQ(run.err.rfind("qvrcs: " + error, 0), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(run.out, "") << run.err;
  }
  // A JSON file's syntax error is located on a line of its own, under the
  // device's account of the file.
  const ToolRun json = RunTool({"explain", Path("bad.json")});
  EXPECT_EQ(json.status, qvrcs_tool::kExitBadInput);
  EXPECT_NE(json.err.find("\n  " + Path("bad.json") + ":3:7: syntax error while parsing object key"), std::string::npos)
      << json.err;
  EXPECT_EQ(std::count(json.err.begin(), json.err.end(), '\n'), 2) << json.err;
  EXPECT_TRUE(ReadFile(tuning_) + ReadFile(text_) + ReadFile(config) == before);
}

TEST_F(OutputTest, PlotAndReportWriteToStandardOutputAndKeepStatusLinesOffIt) {
  std::string cache(static_cast<size_t>(qvr::kDriverCacheSize), '\0');
  RunTool({"convert", tuning_, "-o", Path("payload")});
  cache.replace(3 * qvr::kCacheBlockSize, qvr::kCacheBlockSize, ReadFile(Path("payload")));
  WriteFile(Path("cache.bin"), cache);
  const std::vector<std::pair<Args, std::string>> cases = {
      {{"report", dir(), "-o", "-"}, "<!DOCTYPE html>"},
      {{"convert", tuning_, "-o", "-"}, ""},
      {{"plot", tuning_, "--format", "png", "-o", "-"}, "\x89PNG"},
      {{"plot", "--block", "3", Path("cache.bin"), "hpeq", "--format", "svg", "-o", "-"}, "<?xml"},
  };
  for (const auto& [args, start] : cases) {
    for (const bool quiet : {false, true}) {
      Args line = args;
      if (quiet) line.insert(line.begin(), "-q");
      const ToolRun run = RunTool(line);
      EXPECT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
      EXPECT_EQ(run.out.rfind(start, 0), 0u) << args[0];
      // One status line naming the output "-", on standard error; none with -q.
      EXPECT_EQ(run.err.find("-: ") != std::string::npos, !quiet) << run.err;
      EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), quiet ? 0 : 1) << run.err;
    }
  }
}

TEST_F(OutputTest, TwoFilePlotLegendsStayOnThePage) {
  const ToolRun run = RunTool({"plot", std::string(QVR_EXAMPLES_DIR) + "/max.bin", tuning_, "-o", Path("two.svg")});
  ASSERT_EQ(run.status, qvrcs_tool::kExitOk) << run.err;
  const std::string svg = ReadFile(Path("two.svg"));
  // Every left-aligned text (titles and the legends' labels) ends left of the
  // page's edge, at a generous 0.6 em of 12 px per character (each one an entity).
  size_t labels = 0;
  for (size_t at = svg.find("text-anchor=\"start\""); at != std::string::npos;
       at = svg.find("text-anchor=\"start\"", at + 1), ++labels) {
    double x = 0;
    ASSERT_EQ(std::sscanf(svg.c_str() + svg.rfind("matrix(", at), "matrix(%*f %*f %*f %*f %lf", &x), 1);
    const size_t from = svg.find('>', svg.find("<tspan", at)) + 1;
    const std::string label = svg.substr(from, svg.find('<', from) - from);
    EXPECT_LE(x + 0.6 * 12 * static_cast<double>(std::count(label.begin(), label.end(), ';')), 1200.0) << label;
  }
  EXPECT_GE(labels, 14u) << "ten room channels, two headphone channels, the two files";
}

TEST_F(OutputTest, CheckOnThreadsGivesWhatOneThreadGivesInInputOrder) {
  WriteFile(Path("bad.bin"), "\x0a\x05");
  Args args = {"check", "-j", "1", QVR_EXAMPLES_DIR, tuning_, Path("bad.bin"), text_, Path("none")};
  for (int i = 0; i < 6; ++i) args.push_back(i % 2 == 0 ? dir() : QVR_EXAMPLES_DIR);
  for (const char* form : {"--jsonl", "-v"}) {
    args.push_back(form);
    args[2] = "1";
    const ToolRun one = RunTool(args);
    args[2] = "4";
    const ToolRun four = RunTool(args);
    EXPECT_EQ(four.status, one.status);
    EXPECT_EQ(four.out, one.out);
    EXPECT_EQ(four.err, one.err);
    args.pop_back();
  }
}

}  // namespace
