#include "bundle/imx_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bundle/file_util.h"
#include "bundle/imx_format.h"

namespace le {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error("pack: " + text); }

struct Entry {
  std::string name;
  std::string path;
  uint64_t size;
};

void put16(std::string& out, uint16_t v) {
  out += static_cast<char>(v & 0xff);
  out += static_cast<char>(v >> 8);
}

void put64(std::string& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out += static_cast<char>((v >> (8 * i)) & 0xff);
}

std::vector<Entry> collect(const std::string& dir, const std::string& file) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) refuse(dir + " is not a directory");
  const fs::path skip = fs::weakly_canonical(file, ec);
  std::vector<Entry> entries;
  for (auto it = fs::recursive_directory_iterator(dir); it != fs::recursive_directory_iterator(); ++it) {
    const fs::path& p = it->path();
    const fs::file_status st = it->symlink_status();
    if (fs::is_directory(st)) continue;
    if (fs::weakly_canonical(p, ec) == skip) continue;
    if (!fs::is_regular_file(st)) refuse(p.string() + " is not a regular file; a container holds plain files only");
    const std::string name = fs::relative(p, dir).generic_string();
    // The reader refuses these names, so a container holding one would never open.
    if (name.find("..") != std::string::npos || name.find('\\') == 0)
      refuse("member name '" + name + "' would be refused when the container is opened");
    if (name.size() > std::numeric_limits<uint16_t>::max()) refuse("member name too long: " + name);
    entries.push_back({name, p.string(), static_cast<uint64_t>(it->file_size())});
  }
  if (entries.size() > std::numeric_limits<uint16_t>::max())
    refuse(dir + " holds " + std::to_string(entries.size()) + " files; a container holds at most 65535");
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

}  // namespace

ImxPackResult writeImx(const std::string& dir, const std::string& file) {
  const std::vector<Entry> entries = collect(dir, file);

  std::string head(reinterpret_cast<const char*>(imx::kMagic), 4);
  put16(head, imx::kVersion);
  put16(head, static_cast<uint16_t>(entries.size()));
  uint64_t tableBytes = 0;
  for (const Entry& e : entries) tableBytes += 2 + e.name.size() + 16;
  uint64_t offset = head.size() + tableBytes;
  for (const Entry& e : entries) {
    put16(head, static_cast<uint16_t>(e.name.size()));
    head += e.name;
    put64(head, offset);
    put64(head, e.size);
    offset += e.size;
  }

  const std::string part = file + ".part";
  std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(part.c_str(), "wb"), &std::fclose);
  if (!out) refuse("cannot write " + part);
  bool ok = std::fwrite(head.data(), 1, head.size(), out.get()) == head.size();
  std::vector<char> buffer(size_t{1} << 20);
  for (const Entry& e : entries) {
    std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(e.path.c_str(), "rb"), &std::fclose);
    if (!in) {
      ::unlink(part.c_str());
      refuse("cannot open " + e.path);
    }
    uint64_t copied = 0;
    for (size_t n; ok && (n = std::fread(buffer.data(), 1, buffer.size(), in.get())) > 0; copied += n)
      ok = std::fwrite(buffer.data(), 1, n, out.get()) == n;
    if (ok && copied != e.size) {
      ::unlink(part.c_str());
      refuse(e.path + " changed size while it was being packed");
    }
  }
  ok = std::fflush(out.get()) == 0 && ok;
  ok = std::fclose(out.release()) == 0 && ok;
  if (!ok || std::rename(part.c_str(), file.c_str()) != 0) {
    ::unlink(part.c_str());
    refuse("cannot write " + file);
  }
  return {static_cast<uint32_t>(entries.size()), offset};
}

}  // namespace le
