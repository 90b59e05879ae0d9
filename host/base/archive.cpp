#include "host/base/archive.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kestrion {

CArchive::CArchive() : mode_(Store) {}
CArchive::CArchive(std::vector<uint8_t> bytes) : mode_(Load), bytes_(std::move(bytes)) {}

CArchive CArchive::FromFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ArchiveError("cannot open '" + path + "': " + std::strerror(errno));
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw ArchiveError("cannot read '" + path + "'");
  return CArchive(std::move(bytes));
}

void CArchive::WriteFile(const std::string& path) const {
  const std::string temp = path + ".tmp-" + std::to_string(getpid());
  int err = WriteSyncedFile(temp, bytes_.data(), bytes_.size());
  if (err == 0 && std::rename(temp.c_str(), path.c_str()) != 0) {
    err = errno;
    ::unlink(temp.c_str());
  }
  if (err != 0) throw ArchiveError("cannot write '" + path + "': " + std::strerror(err));
}

int WriteSyncedFile(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  int err = 0;
  for (size_t done = 0; done < size && err == 0;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n > 0)
      done += size_t(n);
    else if (n == 0 || errno != EINTR)
      err = n == 0 ? EIO : errno;
  }
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err != 0) ::unlink(path.c_str());
  return err;
}

void CArchive::WriteWord(uint32_t w) {
  const uint8_t b[4] = {uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16), uint8_t(w >> 24)};
  bytes_.insert(bytes_.end(), b, b + 4);
}

void CArchive::WriteFloat(float f) {
  uint32_t w;
  std::memcpy(&w, &f, 4);
  WriteWord(w);
}

void CArchive::WriteDouble(double d) {
  uint64_t q;
  std::memcpy(&q, &d, 8);
  WriteWord(uint32_t(q));
  WriteWord(uint32_t(q >> 32));
}

void CArchive::WriteBytes(const void* data, size_t n) {
  auto* p = static_cast<const uint8_t*>(data);
  bytes_.insert(bytes_.end(), p, p + n);
}

void CArchive::WriteString(const std::string& s) {
  WriteWord(uint32_t(s.size()));
  WriteBytes(s.data(), s.size());
}

void CArchive::Need(size_t n, const char* what) {
  if (Remaining() < n)
    throw ArchiveError(std::string("the document ends early: ") + what + " at byte " + std::to_string(pos_) +
                       " is cut off");
}

uint32_t CArchive::ReadWord() {
  Need(4, "a word");
  const uint8_t* b = bytes_.data() + pos_;
  pos_ += 4;
  return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

float CArchive::ReadFloat() {
  const uint32_t w = ReadWord();
  float f;
  std::memcpy(&f, &w, 4);
  return f;
}

double CArchive::ReadDouble() {
  Need(8, "a double");
  const uint64_t lo = ReadWord();
  const uint64_t hi = ReadWord();
  const uint64_t q = lo | hi << 32;
  double d;
  std::memcpy(&d, &q, 8);
  return d;
}

void CArchive::ReadBytes(void* data, size_t n) {
  Need(n, "a block of bytes");
  std::memcpy(data, bytes_.data() + pos_, n);
  pos_ += n;
}

std::string CArchive::ReadString() {
  const uint32_t n = ReadWord();
  if (n > Remaining())
    throw ArchiveError("the document is corrupt: a text at byte " + std::to_string(pos_ - 4) + " claims " +
                       std::to_string(n) + " bytes, more than are left");
  std::string s(reinterpret_cast<const char*>(bytes_.data() + pos_), n);
  pos_ += n;
  return s;
}

std::string CArchive::ReadText() {
  const size_t at = pos_;
  std::string s = ReadString();
  if (!IsUtf8(s))
    throw ArchiveError("the document is corrupt: the text at byte " + std::to_string(at) + " is not UTF-8");
  return s;
}

bool IsUtf8(std::string_view s) {
  for (size_t i = 0; i < s.size();) {
    const uint8_t lead = uint8_t(s[i]);
    size_t more = 0;
    uint32_t code = lead;
    if (lead >= 0xC2 && lead <= 0xDF) {
      more = 1;
      code = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      more = 2;
      code = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      more = 3;
      code = lead & 0x07;
    } else if (lead >= 0x80) {
      return false;
    }
    if (s.size() - i <= more) return false;
    for (size_t k = 1; k <= more; ++k) {
      const uint8_t next = uint8_t(s[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3F);
    }
    const bool overlong = (more == 2 && code < 0x800) || (more == 3 && code < 0x10000);
    if (overlong || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return false;
    i += more + 1;
  }
  return true;
}

}  // namespace kestrion
