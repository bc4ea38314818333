#include "director/coreml/coreml_director.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "tessera/json.h"

namespace le {

namespace {

using tessera::json::JVal;

constexpr const char* kMember = "m4b.mlpackage";
constexpr const char* kBlock = "coreml_director";
constexpr const char* kTemplate = "lip_template.v1.json";

bool pathExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// The value if it is a text; otherwise nothing, as if the key were absent.
const std::string* str(const JVal& dict, const char* key) {
  const JVal* v = dict.find(key);
  return v && v->kind == JVal::kString ? &v->str : nullptr;
}

// A boolean, or a number read as one; anything else is false.
bool flag(const JVal& dict, const char* key) {
  const JVal* v = dict.find(key);
  if (!v) return false;
  if (v->kind == JVal::kBool) return v->b;
  if (v->kind == JVal::kNumber) return v->num != 0.0;
  return false;
}

bool fail(std::string* why, const std::string& text) {
  if (why) *why = text;
  return false;
}

// Steps 1 to 8: the manifest, the member and the content address. True
// when the package may be handed to CoreML.
bool check(const std::string& dir, const std::string& name, const std::string& lipTemplateJson, std::string* why) {
  std::ifstream in(dir + "/manifest.json", std::ios::binary);
  if (!in) return fail(why, "no manifest.json in the bundle");
  std::stringstream text;
  text << in.rdbuf();
  const std::string body = text.str();
  JVal root;
  std::string parseError;
  try {
    tessera::json::JParser parser(body);
    root = parser.document();
  } catch (const std::exception& e) {
    parseError = e.what();
    // The reader's messages carry the teeth family's prefix; here it says nothing.
    if (parseError.rfind("teeth: ", 0) == 0) parseError.erase(0, 7);
  }
  if (root.kind != JVal::kObject)
    return fail(why, "manifest.json did not parse as an object: " + (parseError.empty() ? "unknown" : parseError));

  const JVal* block = &root;
  for (const char* key : {"unified", "graphs", "b1", kBlock}) {
    block = block->find(key);
    if (!block || block->kind != JVal::kObject)
      return fail(why, std::string("the bundle manifest carries no unified.graphs.b1.") + kBlock +
                           " block — this bundle was distributed before 2026-09-11 or by a producer that does not "
                           "install the member");
  }
  const std::string* member = str(*block, "member");
  if (!member || *member != kMember)
    return fail(why, std::string("the manifest's ") + kBlock + " block names member '" +
                         (member ? *member : std::string("(none)")) + "', not " + kMember);
  if (!pathExists(dir + "/" + kMember))
    return fail(why, std::string("the manifest records ") + kMember +
                         " but the member is NOT IN THE BUNDLE — it was stripped in transport, or the manifest "
                         "travelled without it");
  const std::string graph = "model_" + name + ".onnx";
  const std::string* source = str(*block, "source_graph");
  if (!source || *source != graph)
    return fail(why, "the bundle's native director was converted from '" +
                         (source ? *source : std::string("(unrecorded)")) + "' and this renderer was asked for '" +
                         graph + "' — a director for another graph is not a faster way to run this one");
  const std::string* recorded = str(*block, "source_graph_sha256");
  if (!recorded)
    return fail(why, std::string("the ") + kBlock +
                         " block records no source_graph_sha256, so the member cannot be bound to this bundle's "
                         "graph — REFUSING an unverifiable director");
  const std::string graphPath = dir + "/" + graph;
  std::string computed;
  if (!sha256File(graphPath, computed))
    return fail(why, "could not read " + graphPath + " to verify the native director's content address");
  if (computed != *recorded)
    return fail(why, std::string("CONTENT ADDRESS MISMATCH: ") + kMember + " was converted from a graph with sha256 " +
                         *recorded + " and this bundle's " + graph + " is " + computed +
                         " — the member belongs to another build of this identity, or another identity. REFUSING "
                         "it.");
  if (!lipTemplateJson.empty() && !flag(*block, "lip_delivery"))
    return fail(why, std::string("the bundle carries ") + kTemplate + " and its " + kBlock + " block records " +
                         kMember +
                         " as UNBOUND (no lip_delivery input) — a 4-input director would compose the graph's "
                         "ELLIPSE alpha under a contour template (docs/THE_TWO_MASKS.md). REFUSING it: rebuild the "
                         "member BOUND (build_ane_director binds when the template is present)");
  return true;
}

}  // namespace

CoreMLDirector::~CoreMLDirector() = default;

std::unique_ptr<CoreMLDirector> CoreMLDirector::open(const std::string& dir, const std::string& name,
                                                     const std::string& lipTemplateJson, std::string* why) {
  try {
    if (!check(dir, name, lipTemplateJson, why)) return nullptr;
  } catch (const std::exception& e) {
    fail(why, e.what());  // no memory for the manifest, say
    return nullptr;
  }
  // Compiling, loading and predicting are CoreML's, and this build has none.
  fail(why, std::string(kMember) +
                " passed the manifest and content-address checks, and this build has no CoreML to compile or run "
                "it");
  return nullptr;
}

}  // namespace le
