#include "tools/qvrcs/io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
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

// The folder part of `path`, with its slash ("" for a bare name).
std::string FolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Where an output lands.
struct Target {
  enum Kind { kFile, kInPlace, kDescriptor } kind = kFile;
  std::string path;            // kFile: the regular file to replace or create; kInPlace: the node
  int fd = -1;                 // kDescriptor
  bool exists = false;         // kFile
  struct stat info {};         // kFile, when it exists
};

// The descriptor of this process that `path` names (/dev/fd/N and
// /proc/self/fd/N, /dev/std* through their links), or -1.
int DescriptorNamed(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash + 1 == path.size()) return -1;
  const std::string name = path.substr(slash + 1);
  if (name.size() > 9 || name.find_first_not_of("0123456789") != std::string::npos) return -1;
  char* folder = realpath(path.substr(0, slash + 1).c_str(), nullptr);
  if (folder == nullptr) return -1;
  const std::string resolved = folder;
  std::free(folder);
  const std::string own = "/proc/" + std::to_string(getpid());
  const bool fds = resolved == own + "/fd" || (resolved.rfind(own + "/task/", 0) == 0 &&
                                                resolved.size() > 3 && resolved.compare(resolved.size() - 3, 3, "/fd") == 0);
  return fds ? std::atoi(name.c_str()) : -1;
}

// Follows `path` through its links to what writing it would write.
bool Resolve(const std::string& path, Target& target, std::string& error) {
  std::string at = path;
  for (int links = 0;; ++links) {
    target.fd = DescriptorNamed(at);
    if (target.fd >= 0) {
      target.kind = Target::kDescriptor;
      return true;
    }
    struct stat info {};
    if (lstat(at.c_str(), &info) != 0) {
      if (errno != ENOENT) break;
      target.kind = Target::kFile;
      target.path = at;
      return true;
    }
    if (S_ISLNK(info.st_mode)) {
      std::string link(PATH_MAX, '\0');
      const ssize_t n = links < 40 ? readlink(at.c_str(), link.data(), link.size()) : (errno = ELOOP, -1);
      if (n < 0) break;
      link.resize(static_cast<size_t>(n));
      at = link[0] == '/' ? link : FolderOf(at) + link;
      continue;
    }
    if (S_ISDIR(info.st_mode)) {
      error = "is a directory, not a file";
      return false;
    }
    target.kind = S_ISREG(info.st_mode) ? Target::kFile : Target::kInPlace;
    target.path = at;
    target.exists = true;
    target.info = info;
    return true;
  }
  error = std::string("cannot write: ") + std::strerror(errno);
  return false;
}

// Whether `path` is refused as an output; the reason in `error`.
bool Refused(const std::string& path, const std::vector<std::string>& inputs, std::string& error) {
  if (path.empty()) {
    error = "empty file name";
    return true;
  }
  for (const std::string& input : inputs) {
    if (input != "-" && (input == path || SameFile(input, path))) {
      error = "is also an input: refusing to write over it";
      return true;
    }
  }
  return false;
}

// Writes the regular file of `target` whole: a temporary file beside it,
// synced and renamed onto it.
bool ReplaceFile(const Target& target, const std::string& bytes, std::string& error) {
  std::string temp = FolderOf(target.path) + ".qvrcs-XXXXXX";
  Fd file{NewFile(temp, target.exists ? target.info.st_mode & 07777 : NewFileMode())};
  if (file.fd < 0) {
    error = std::string("cannot write: ") + std::strerror(errno);
    return false;
  }
  // An existing file keeps its owner where this process may give it (root may).
  if (target.exists && (target.info.st_uid != geteuid() || target.info.st_gid != getegid()) &&
      fchown(file.fd, target.info.st_uid, target.info.st_gid) == 0) {
    fchmod(file.fd, target.info.st_mode & 07777);  // chown clears set-id bits
  }
  int failure = WriteAll(file.fd, bytes.data(), bytes.size()) && fsync(file.fd) == 0 ? 0 : errno;
  const int fd = file.fd;
  file.fd = -1;
  if (close(fd) != 0 && failure == 0) failure = errno;
  if (failure == 0 && rename(temp.c_str(), target.path.c_str()) == 0) return true;
  error = std::string("cannot write: ") + std::strerror(failure != 0 ? failure : errno);
  unlink(temp.c_str());
  return false;
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
  if (WriteAll(file.fd, bytes.data(), bytes.size())) return true;
  error = std::string("cannot write a temporary file: ") + std::strerror(errno);
  return false;
}

bool WriteAll(int fd, const char* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

bool CheckOutput(const std::string& path, const std::vector<std::string>& inputs, std::string& error) {
  Target target;
  return Refused(path, inputs, error) ? false : Resolve(path, target, error);
}

bool WriteOutput(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs,
                 std::string& error) {
  Target target;
  if (Refused(path, inputs, error) || !Resolve(path, target, error)) return false;
  int failure = 0;
  switch (target.kind) {
    case Target::kDescriptor:
      failure = WriteAll(target.fd, bytes.data(), bytes.size()) ? 0 : errno;
      break;
    case Target::kInPlace: {
      const int fd = open(target.path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
      if (fd < 0) {
        failure = errno;
        break;
      }
      failure = WriteAll(fd, bytes.data(), bytes.size()) ? 0 : errno;
      if (close(fd) != 0 && failure == 0) failure = errno;
      break;
    }
    case Target::kFile:
      return ReplaceFile(target, bytes, error);
  }
  if (failure != 0) error = std::string("cannot write: ") + std::strerror(failure);
  return failure == 0;
}

}  // namespace qvrcs_tool
