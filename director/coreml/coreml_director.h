// The bundle's director converted ahead of time to a CoreML package, the
// member m4b.mlpackage. Before anything is compiled, open proves that the
// package belongs to exactly this bundle's graph file: the manifest's
// coreml_director block names the member, the member is present, it was
// converted from this graph, and the graph's SHA-256 is the one recorded.
// Every failed proof gives a reason and no director; the renderer then runs
// the same graph through ONNX Runtime and says why.
//
// This build has no CoreML: open makes every check that is plain file and
// hash work, and a package that passes them all stops where CoreML would
// compile it, with a reason that says so.
#pragma once

#include <memory>
#include <string>

namespace le {

class CoreMLDirector {
 public:
  struct Info {
    int batch = 0, kpRows = 0, crop = 0;  // the package's declared shapes
    std::string units;                    // compute units graded for it
    std::string precision;
    double parity = 0.0;                  // the builder's parity with the graph, dB
    std::string sourceSha256;             // as computed
    bool cacheHit = false;
    double loadSeconds = 0.0;
    bool lipBound = false;                // the package has the lip_delivery input
    std::string lipNote;
  };

  virtual ~CoreMLDirector();
  virtual const Info& info() const = 0;
  // Float buffers of batch rows each, expected at the same addresses every call.
  virtual void run(const float* pooled, const float* prior, const float* kpDriving, const float* kpSource,
                   float* out) = 0;

  // dir: the bundle directory; name: the director's key (the graph is
  // "model_" + name + ".onnx"); lipTemplateJson: the bundle's lip template
  // text, empty when it has none. Returns nothing, with the reason in why
  // (when not null); throws nothing for a bad bundle.
  static std::unique_ptr<CoreMLDirector> open(const std::string& dir, const std::string& name,
                                              const std::string& lipTemplateJson, std::string* why);
};

// SHA-256 of a file, read in chunks of 1 MiB, as 64 lower-case hexadecimal
// characters; false when it can't be opened or read.
bool sha256File(const std::string& path, std::string& out);

}  // namespace le
