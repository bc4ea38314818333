// The interface a frame decoder implements for DriverCursor.
// next, rewind and seek are called only from the cursor's decoder thread, so
// a source needs no lock of its own for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace le::driver {

class Source {
 public:
  virtual ~Source() = default;
  virtual int32_t NT() const = 0;  // frames in the member
  virtual int32_t W() const = 0;   // frame width
  virtual int32_t H() const = 0;   // frame height
  // Bytes of one frame; RGB24 unless a source says otherwise.
  virtual std::size_t frameBytes() const {
    return static_cast<std::size_t>(W()) * static_cast<std::size_t>(H()) * 3;
  }
  // Decodes the next frame into dst (frameBytes() bytes); false at the end
  // of the member. Throws on any other failure.
  virtual bool next(uint8_t* dst) = 0;
  virtual void rewind() = 0;           // back to frame 0
  virtual void seek(int32_t i) = 0;    // the next next() yields frame i
  virtual std::string name() const = 0;          // backend description
  virtual std::size_t residentBytes() const = 0;  // memory the source holds for itself

 protected:
  Source() = default;
  Source(const Source&) = default;
  Source& operator=(const Source&) = default;
};

}  // namespace le::driver
