// le-bundle: the avatar author's view of a bundle, over the engine itself.
//
//   le-bundle info [--model KEY] <bundle>   open it as le_create does; print the
//                                           manifest and where each member resolves
//   le-bundle pack <dir> <file.imx>         write a version 2 container
//   le-bundle unpack <file.imx> [<root>]    unwrap a container (beside it, or under root)
//   le-bundle render [--model KEY] <bundle> <N> <outdir>
//                                           render and paste N frames of the idle
//                                           loop and write them as PNG files
//   le-bundle donors <bundle> <outdir>      the teeth bank's reference track as
//                                           donor_NNNN.png in donor order
//   le-bundle version                       engine and ONNX Runtime versions
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/imx_writer.h"
#include "bundle/members.h"
#include "director/ort_version.h"
#include "driver/image_io.h"
#include "le/context.h"
#include "le/le.h"
#include "tools/bank_donors.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: le-bundle info [--model KEY] <bundle>\n"
               "       le-bundle pack <dir> <file.imx>\n"
               "       le-bundle unpack <file.imx> [<root>]\n"
               "       le-bundle render [--model KEY] <bundle> <N> <outdir>\n"
               "       le-bundle donors <bundle> <outdir>\n"
               "       le-bundle version\n");
  return 2;
}

// Members the engine looks up by name, in the order a reader would check them.
std::vector<std::string> knownMembers(const std::string& dir, const std::string& modelKey) {
  std::vector<std::string> names = {"P.f16",         "fs_red.f16",   "pooled64.f16", "P_hevc.mov",
                                    "M.f32",         "mask_512.u8",  "drive/xs.f32", "drive/xd.f32",
                                    "drive/si.i32",  "xs_target.bin", "a2x_enc_stream.onnx", "a2x_dec.onnx",
                                    "lip_template.v1.json"};
  std::set<std::string> graphs = {"model_" + modelKey + ".onnx"};
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    const std::string f = e.path().filename().string();
    if (f.rfind("model_", 0) == 0 && f.size() > 5 && f.compare(f.size() - 5, 5, ".onnx") == 0) graphs.insert(f);
    // A graph stored only under its canonical name: list it by the name the engine asks for.
    if (f.rfind("render_model.batch", 0) == 0 && f.size() > 5 && f.compare(f.size() - 5, 5, ".onnx") == 0) {
      std::string mid = f.substr(18, f.size() - 23);
      const size_t dot = mid.find('.');
      if (dot != std::string::npos) mid[dot] = '_';
      graphs.insert("model_b" + mid + ".onnx");
    }
  }
  names.insert(names.end(), graphs.begin(), graphs.end());
  return names;
}

int info(const std::string& path, const std::string& modelKey) {
  le_ctx* ctx = le_create(path.c_str(), modelKey.c_str(), 0, nullptr);
  if (!ctx) {
    std::fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  const le::Manifest& m = ctx->manifest;
  std::printf("bundle        %s\n", path.c_str());
  std::printf("resolved      %s\n", m.bundle_dir.c_str());
  std::printf("agent         %s\n", m.agent.c_str());
  std::printf("NT            %d\n", m.NT);
  std::printf("canvas        %dx%d (W x H)\n", m.W, m.H);
  std::printf("paste stamp   %dx%d (M_src_w x M_src_h)\n", m.M_src_w, m.M_src_h);
  std::printf("crop          %d\n", m.crop);
  std::printf("unsharp       amount %g, sigma %g, ksize %d\n", static_cast<double>(m.amount),
              static_cast<double>(m.sigma), m.ksize);
  std::printf("frames        %d\n", m.frames);
  std::printf("lip template  %s\n",
              m.lip_template_json.empty() ? "none" : (std::to_string(m.lip_template_json.size()) + " bytes").c_str());
  std::printf("members:\n");
  for (const std::string& name : knownMembers(m.bundle_dir, modelKey)) {
    const std::string resolved = le::resolveMember(m.bundle_dir, name);
    const char* how = !le::canOpen(resolved)                    ? "missing"
                      : resolved == m.bundle_dir + "/" + name ? "primary"
                                                                : "canonical";
    std::printf("  %-24s %-9s %s\n", name.c_str(), how,
                le::canOpen(resolved) ? resolved.substr(m.bundle_dir.size() + 1).c_str() : "");
  }
  le_destroy(ctx);
  return 0;
}

int pack(const std::string& dir, const std::string& file) {
  // A bundle the engine would refuse is not worth shipping: say why now.
  le_ctx* ctx = le_create(dir.c_str(), "render", 0, nullptr);
  if (!ctx) {
    std::fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  le_destroy(ctx);
  const le::ImxPackResult r = le::writeImx(dir, file);
  std::printf("packed %u members (%llu bytes) into %s\n", r.members, static_cast<unsigned long long>(r.bytes),
              file.c_str());
  return 0;
}

int unpack(const std::string& file, const char* root) {
  if (!le::isImxV2File(file)) {
    std::fprintf(stderr, "le-bundle: %s is not an IMX version 2 container\n", file.c_str());
    return 1;
  }
  if (root) setenv("LE_IMX_UNWRAP_ROOT", root, 1);
  std::vector<char> out(4096);
  if (le_bundle_resolve_handle(file.c_str(), out.data(), out.size()) != 1) {
    std::fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  std::printf("%s\n", out.data());
  return 0;
}

// Finished frames of the idle loop, through the C interface as a host gets
// them: row i % frames of the loop, rendered, pasted and written as
// <outdir>/frame_<i>.png.
int render(const std::string& path, const std::string& modelKey, const std::string& count, const std::string& outdir) {
  char* end = nullptr;
  const long n = std::strtol(count.c_str(), &end, 10);
  if (count.empty() || *end != '\0' || n < 1 || n > 100000) {
    std::fprintf(stderr, "le-bundle: frame count '%s' is not a number from 1 to 100000\n", count.c_str());
    return 2;
  }
  le_ctx* ctx = le_create(path.c_str(), modelKey.c_str(), 0, nullptr);
  if (!ctx) {
    std::fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  std::filesystem::create_directories(outdir);
  const int frames = le_drive_frames(ctx);
  for (long i = 0; i < n; ++i) {
    const int row = static_cast<int>(i % frames);
    const uint8_t* rgb = le_render_drive_crop(ctx, row) ? le_paste_last(ctx, ctx->drive.si[static_cast<size_t>(row)])
                                                        : nullptr;
    if (!rgb) {
      std::fprintf(stderr, "%s\n", le_last_error());
      le_destroy(ctx);
      return 1;
    }
    char name[32];
    std::snprintf(name, sizeof name, "/frame_%06ld.png", i);
    le::writePNG(outdir + name, rgb, le_width(ctx), le_height(ctx));
  }
  std::printf("rendered %ld frames of the idle loop (%dx%d, crop %d, ep %s) into %s\n", n, le_width(ctx),
              le_height(ctx), le_crop(ctx), ctx->renderer->ep().c_str(), outdir.c_str());
  le_destroy(ctx);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> a(argv + 1, argv + argc);
    if (a.size() == 1 && a[0] == "version") {
      std::printf("kestrova %s, ONNX Runtime %s\n", LE_VERSION_STRING, le::ortVersionText().c_str());
      return 0;
    }
    if (a.size() == 2 && a[0] == "info") return info(a[1], "render");
    if (a.size() == 4 && a[0] == "info" && a[1] == "--model") return info(a[3], a[2]);
    if (a.size() == 3 && a[0] == "pack") return pack(a[1], a[2]);
    if (a.size() == 4 && a[0] == "render") return render(a[1], "render", a[2], a[3]);
    if (a.size() == 6 && a[0] == "render" && a[1] == "--model") return render(a[3], a[2], a[4], a[5]);
    if (a.size() == 3 && a[0] == "donors") {
      const int n = le::tools::writeBankDonors(a[1], a[2]);
      std::printf("wrote %d donor frames of the teeth bank, in donor order, into %s\n", n, a[2].c_str());
      return 0;
    }
    if ((a.size() == 2 || a.size() == 3) && a[0] == "unpack") return unpack(a[1], a.size() == 3 ? argv[3] : nullptr);
    return usage();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "le-bundle: %s\n", e.what());
    return 1;
  }
}
