// CArchive: a stream of little-endian 32-bit words (and floats, doubles, bytes) over a file
// or memory. Reading past the end throws ArchiveError, which document loading turns into one
// clear message; nothing else in the host throws across a tool's boundary.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kestrion {

class ArchiveError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CArchive {
 public:
  enum Mode { Store, Load };

  // An archive that stores into memory.
  CArchive();
  // An archive that loads from a copy of the given bytes.
  explicit CArchive(std::vector<uint8_t> bytes);

  // Whole files: read in full, or written atomically (temporary name, then rename).
  static CArchive FromFile(const std::string& path);  // throws ArchiveError
  void WriteFile(const std::string& path) const;      // throws ArchiveError

  bool IsStoring() const { return mode_ == Store; }
  bool IsLoading() const { return mode_ == Load; }

  void WriteWord(uint32_t w);
  void WriteInt(int32_t v) { WriteWord(uint32_t(v)); }
  void WriteFloat(float f);
  void WriteDouble(double d);
  void WriteBytes(const void* data, size_t n);
  // A length-prefixed string (32-bit byte count, bytes, no terminator).
  void WriteString(const std::string& s);

  uint32_t ReadWord();
  int32_t ReadInt() { return int32_t(ReadWord()); }
  float ReadFloat();
  double ReadDouble();
  void ReadBytes(void* data, size_t n);
  // Strings longer than the rest of the archive are rejected as corrupt.
  std::string ReadString();
  // A string that holds text (a name, a file name): one that is not UTF-8 is rejected too, as
  // a text flow could not hold it.
  std::string ReadText();

  // The format of the records being read: documents before version 2 hold no attributes in a
  // tool's base record. Archives made in memory are of the current format.
  static constexpr uint32_t kCurrentFormat = 2;
  uint32_t format = kCurrentFormat;

  size_t Position() const { return pos_; }
  size_t Remaining() const { return bytes_.size() - pos_; }
  bool AtEnd() const { return pos_ >= bytes_.size(); }
  const std::vector<uint8_t>& Bytes() const { return bytes_; }

 private:
  void Need(size_t n, const char* what);

  Mode mode_;
  std::vector<uint8_t> bytes_;
  size_t pos_ = 0;
};

// Writes bytes to a file (replacing one of that name) and fsyncs it: 0, or the errno of the
// first call that failed, the file then removed.
int WriteSyncedFile(const std::string& path, const uint8_t* data, size_t size);

// Whether the bytes are well-formed UTF-8: no overlong forms, surrogates or code points past
// U+10FFFF (what a text flow can hold).
bool IsUtf8(std::string_view s);

}  // namespace kestrion
