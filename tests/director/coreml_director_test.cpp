// The native CoreML director's checks, each refusal word for word, in the
// order a bundle meets them; where a bundle that passes them all stops on
// this build; the SHA-256 of a file; and what the renderer says.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "director/coreml/coreml_director.h"
#include "director/renderer.h"
#include "director/rewrites/sha256.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

const std::string kGraph = "graph bytes of model_b1_fp32.onnx\n";

// A bundle directory with the graph, the package and a manifest whose
// coreml_director block is `block` (JSON members, without braces).
class Bundle {
 public:
  explicit Bundle(const std::string& block, bool withPackage = true) {
    writeFile(dir_ / "model_b1_fp32.onnx", kGraph);
    if (withPackage) writeFile(dir_ / "m4b.mlpackage/Manifest.json", "{}");
    manifest("{\"format\": \"le-bundle-v0\", \"unified\": {\"graphs\": {\"b1\": {\"coreml_director\": {" + block +
             "}}}}}");
  }
  void manifest(const std::string& text) { writeFile(dir_ / "manifest.json", text); }
  const std::string& dir() const { return dir_.path(); }

  std::string why(const std::string& lipTemplate = "", const std::string& name = "b1_fp32") const {
    std::string text = "(none)";
    EXPECT_EQ(CoreMLDirector::open(dir(), name, lipTemplate, &text), nullptr);
    return text;
  }

 private:
  TempDir dir_;
};

std::string sha() { return sha256Hex(kGraph.data(), kGraph.size()); }

std::string good(const std::string& extra = "") {
  return "\"member\": \"m4b.mlpackage\", \"source_graph\": \"model_b1_fp32.onnx\", \"source_graph_sha256\": \"" +
         sha() + "\"" + extra;
}

const std::string kNoCoreML =
    "m4b.mlpackage passed the manifest and content-address checks, and this build has no CoreML to compile or run it";

TEST(CoreMLDirector, ChecksInOrderWordForWord) {
  Bundle b(good());
  EXPECT_EQ(b.why(), kNoCoreML);
  EXPECT_EQ(CoreMLDirector::open(b.dir(), "b1_fp32", "", nullptr), nullptr);

  TempDir empty;
  std::string text;
  EXPECT_EQ(CoreMLDirector::open(empty.path(), "b1_fp32", "", &text), nullptr);
  EXPECT_EQ(text, "no manifest.json in the bundle");

  b.manifest("[1, 2]");
  EXPECT_EQ(b.why(), "manifest.json did not parse as an object: unknown");
  b.manifest("{\"unified\": ");
  EXPECT_EQ(b.why(), "manifest.json did not parse as an object: JSON truncated");

  const std::string noBlock =
      "the bundle manifest carries no unified.graphs.b1.coreml_director block — this bundle was distributed before "
      "2026-09-11 or by a producer that does not install the member";
  for (const char* body : {"{\"format\": \"le-bundle-v0\"}", "{\"unified\": {\"graphs\": {\"b1\": {}}}}",
                           "{\"unified\": {\"graphs\": {\"b1\": {\"coreml_director\": \"m4b.mlpackage\"}}}}",
                           "{\"unified\": \"graphs\"}"}) {
    b.manifest(body);
    EXPECT_EQ(b.why(), noBlock) << body;
  }

  EXPECT_EQ(Bundle("").why(), "the manifest's coreml_director block names member '(none)', not m4b.mlpackage");
  EXPECT_EQ(Bundle("\"member\": 4").why(),
            "the manifest's coreml_director block names member '(none)', not m4b.mlpackage");
  EXPECT_EQ(Bundle("\"member\": \"m4b.onnx\"").why(),
            "the manifest's coreml_director block names member 'm4b.onnx', not m4b.mlpackage");
  EXPECT_EQ(Bundle(good(), false).why(),
            "the manifest records m4b.mlpackage but the member is NOT IN THE BUNDLE — it was stripped in transport, or "
            "the manifest travelled without it");
  EXPECT_EQ(Bundle("\"member\": \"m4b.mlpackage\"").why(),
            "the bundle's native director was converted from '(unrecorded)' and this renderer was asked for "
            "'model_b1_fp32.onnx' — a director for another graph is not a faster way to run this one");
  EXPECT_EQ(Bundle(good()).why("", "b4_fp32"),
            "the bundle's native director was converted from 'model_b1_fp32.onnx' and this renderer was asked for "
            "'model_b4_fp32.onnx' — a director for another graph is not a faster way to run this one");
  EXPECT_EQ(Bundle("\"member\": \"m4b.mlpackage\", \"source_graph\": \"model_b1_fp32.onnx\"").why(),
            "the coreml_director block records no source_graph_sha256, so the member cannot be bound to this bundle's "
            "graph — REFUSING an unverifiable director");

  // The comparison is exact: the same digest in upper case is another text.
  std::string upper = sha();
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(Bundle("\"member\": \"m4b.mlpackage\", \"source_graph\": \"model_b1_fp32.onnx\", "
                   "\"source_graph_sha256\": \"" + upper + "\"").why(),
            "CONTENT ADDRESS MISMATCH: m4b.mlpackage was converted from a graph with sha256 " + upper +
                " and this bundle's model_b1_fp32.onnx is " + sha() +
                " — the member belongs to another build of this identity, or another identity. REFUSING it.");
  Bundle gone(good());
  std::filesystem::remove(gone.dir() + "/model_b1_fp32.onnx");
  EXPECT_EQ(gone.why(), "could not read " + gone.dir() +
                            "/model_b1_fp32.onnx to verify the native director's content address");
}

TEST(CoreMLDirector, ALipTemplateNeedsABoundPackage) {
  const std::string unbound =
      "the bundle carries lip_template.v1.json and its coreml_director block records m4b.mlpackage as UNBOUND (no "
      "lip_delivery input) — a 4-input director would compose the graph's ELLIPSE alpha under a contour template "
      "(docs/THE_TWO_MASKS.md). REFUSING it: rebuild the member BOUND (build_ane_director binds when the template is "
      "present)";
  const std::string lip = "{\"canvas\": 32}";
  EXPECT_EQ(Bundle(good()).why(lip), unbound);
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": false")).why(lip), unbound);
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": \"true\"")).why(lip), unbound);  // a text is not a flag
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": 0")).why(lip), unbound);
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": true")).why(lip), kNoCoreML);
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": 1")).why(lip), kNoCoreML);
  // Without a template an unbound package is what the bundle asks for.
  EXPECT_EQ(Bundle(good(", \"lip_delivery\": false")).why(""), kNoCoreML);
}

TEST(CoreMLDirector, Sha256OfAFileInChunks) {
  TempDir t;
  std::string big(2 * 1024 * 1024 + 123, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 131) >> 3);
  writeFile(t / "big", big);
  std::string out;
  ASSERT_TRUE(sha256File(t / "big", out));
  EXPECT_EQ(out, sha256Hex(big.data(), big.size()));
  writeFile(t / "empty", "");
  ASSERT_TRUE(sha256File(t / "empty", out));
  EXPECT_EQ(out, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_FALSE(sha256File(t / "absent", out));
}

// The renderer asks the director when a CoreML ep is named, tells why it
// was not used, and runs the graph on ONNX Runtime's CPU provider.
TEST(CoreMLDirector, TheRendererSaysWhereTheChecksStopped) {
  TempDir t;
  copyTree(dataPath("sample"), t.path());
  writeFile(t / "m4b.mlpackage/Manifest.json", "{}");
  const std::string graphSha = sha256Hex(readFile(t / "model_b1_fp32.onnx").data(),
                                         readFile(t / "model_b1_fp32.onnx").size());
  std::string manifest = readFile(t / "manifest.json");
  manifest.insert(manifest.rfind('}'),
                  ", \"unified\": {\"graphs\": {\"b1\": {\"coreml_director\": {\"member\": \"m4b.mlpackage\", "
                  "\"source_graph\": \"model_b1_fp32.onnx\", \"source_graph_sha256\": \"" + graphSha +
                      "\", \"lip_delivery\": true}}}}");
  writeFile(t / "manifest.json", manifest);
  const Manifest m = loadManifest(t.path(), 0);
  Identity identity(m);
  std::unique_ptr<Renderer> r;
  const std::string log = captureStderr([&] { r = std::make_unique<Renderer>(m, identity, "b1_fp32", 1, "coreml"); });
  const std::string note = "native CoreML director NOT used (falling back to onnxruntime): " + kNoCoreML;
  EXPECT_EQ(r->directorNote(), note);
  EXPECT_NE(log.find("[le] " + note + "\n"), std::string::npos) << log;
  EXPECT_EQ(r->ep(), "cpu");
  EXPECT_EQ(r->backend(), "ort");
}

}  // namespace
}  // namespace le::test
