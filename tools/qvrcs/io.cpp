#include "tools/qvrcs/io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qvrcs_tool {
namespace {

const char* KindOfNode(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

std::string TooLarge() { return "larger than " + std::to_string(kMaxInputSize) + " bytes, the most qvrcs reads"; }

// Closes a descriptor on every path out.
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// Opens `path` when it is a regular file of at most kMaxInputSize bytes.
bool OpenRegular(const std::string& path, Fd& file, struct stat& info, std::string& error) {
  if (path.empty()) {
    error = "empty file name";
    return false;
  }
  // O_NONBLOCK: opening a FIFO must not wait for a writer.
  file.fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file.fd < 0) {
    if (errno != ENOENT && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      error = "is a directory, not a file";
    } else {
      error = std::string("cannot open: ") + std::strerror(errno);
    }
    return false;
  }
  if (fstat(file.fd, &info) != 0) {
    error = std::string("cannot read: ") + std::strerror(errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    error = S_ISDIR(info.st_mode) ? "is a directory, not a file"
                                  : std::string("is ") + KindOfNode(info.st_mode) + ", not a regular file";
    return false;
  }
  if (static_cast<unsigned long long>(info.st_size) > kMaxInputSize) {
    error = TooLarge();
    return false;
  }
  return true;
}

// Makes a new file from the mkstemp pattern `name` (filled in) with `mode`
// (mkstemp makes it private); -1, with errno, when none can be made.
int NewFile(std::string& name, mode_t mode) {
  const int fd = mkstemp(name.data());
  if (fd < 0 || fchmod(fd, mode) == 0) return fd;
  const int saved = errno;
  close(fd);
  unlink(name.c_str());
  errno = saved;
  return -1;
}

// The mode a new file gets.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Whether `a` and `b` name the same existing file.
bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa {}, sb {};
  if (stat(a.c_str(), &sa) != 0 || stat(b.c_str(), &sb) != 0) return false;
  return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

std::string Shown(const std::string& path) { return path.empty() ? "\"\"" : path; }

bool CheckRegularFile(const std::string& path, std::string& error) {
  Fd file;
  struct stat info {};
  return OpenRegular(path, file, info, error);
}

bool ReadRegularFile(const std::string& path, std::string& bytes, std::string& error) {
  Fd file;
  struct stat info {};
  if (!OpenRegular(path, file, info, error)) return false;
  bytes.clear();
  bytes.resize(static_cast<size_t>(info.st_size));
  size_t got = 0;
  // One byte more than the size: a file that grows while read is noticed.
  std::string rest(1, '\0');
  for (;;) {
    char* into = got < bytes.size() ? &bytes[got] : rest.data();
    const size_t want = got < bytes.size() ? bytes.size() - got : 1;
    const ssize_t n = read(file.fd, into, want);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      error = std::string("cannot read: ") + std::strerror(errno);
      return false;
    }
    if (n == 0) break;
    if (got >= bytes.size()) {
      error = "changed while it was read";
      return false;
    }
    got += static_cast<size_t>(n);
  }
  bytes.resize(got);
  return true;
}

bool ReadStream(std::istream& in, std::string& bytes, std::string& error) {
  bytes.clear();
  char buffer[65536];
  while (in) {
    in.read(buffer, sizeof buffer);
    bytes.append(buffer, static_cast<size_t>(in.gcount()));
    if (bytes.size() > kMaxInputSize) {
      error = TooLarge();
      return false;
    }
  }
  if (in.bad()) {
    error = "cannot read standard input";
    return false;
  }
  return true;
}

std::string TemporaryNear(const std::string& path) {
  std::string name = path + ".XXXXXX";
  const Fd file{NewFile(name, NewFileMode())};
  return file.fd < 0 ? std::string() : name;
}

bool ReadInput(const std::string& path, std::istream& in, std::string& bytes, std::string& error) {
  return path == "-" ? ReadStream(in, bytes, error) : ReadRegularFile(path, bytes, error);
}

TempFile::~TempFile() {
  if (!path_.empty()) unlink(path_.c_str());
}

bool TempFile::Write(const std::string& bytes, std::string& error) {
  const char* dir = std::getenv("TMPDIR");
  std::string name = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/qvrcs-XXXXXX";
  Fd file{mkstemp(name.data())};
  if (file.fd < 0) {
    error = std::string("cannot write a temporary file: ") + std::strerror(errno);
    return false;
  }
  path_ = name;
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = write(file.fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = std::string("cannot write a temporary file: ") + std::strerror(errno);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool WriteAtomically(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs,
                     std::string& error) {
  if (path.empty()) {
    error = "empty file name";
    return false;
  }
  for (const std::string& input : inputs) {
    if (input == path || SameFile(input, path)) {
      error = "is also an input: refusing to write over it";
      return false;
    }
  }
  struct stat target {};
  const bool exists = stat(path.c_str(), &target) == 0;
  if (exists && !S_ISREG(target.st_mode)) {
    error = std::string("is ") + KindOfNode(target.st_mode) + ", not a regular file";
    return false;
  }
  const size_t slash = path.rfind('/');
  std::string temp = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + ".qvrcs-XXXXXX";
  // An existing file keeps its mode.
  Fd file{NewFile(temp, exists ? target.st_mode & 07777 : NewFileMode())};
  if (file.fd < 0) {
    error = std::string("cannot write: ") + std::strerror(errno);
    return false;
  }
  bool ok = true;
  for (size_t done = 0; ok && done < bytes.size();) {
    const ssize_t n = write(file.fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  const int saved = errno;
  ok = ok && close(file.fd) == 0;
  file.fd = -1;
  if (ok && rename(temp.c_str(), path.c_str()) == 0) return true;
  error = std::string("cannot write: ") + std::strerror(ok ? errno : saved);
  unlink(temp.c_str());
  return false;
}

}  // namespace qvrcs_tool
