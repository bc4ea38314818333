#include "bundle/members.h"

#include <array>
#include <string_view>
#include <utility>

#include "bundle/file_util.h"

namespace le {

namespace {

bool startsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }
bool endsWith(std::string_view s, std::string_view p) {
  return s.size() >= p.size() && s.substr(s.size() - p.size()) == p;
}

constexpr std::array<std::pair<std::string_view, std::string_view>, 9> kPairs{{
    {"P.f16", "source_frames.f16"},
    {"P_hevc.mov", "source_frames.hevc"},
    {"a2x_enc_stream.onnx", "audio_motion_encoder.onnx"},
    {"a2x_dec.onnx", "audio_motion_decoder.onnx"},
    {"M.f32", "paste_transform.f32"},
    {"mask_512.u8", "paste_mask.u8"},
    {"pooled64.f16", "pooled_features.f16"},
    {"fs_red.f16", "feature_synth.f16"},
    {"xs_target.bin", "target_keypoints.bin"},
}};

constexpr std::string_view kGraphPrefix = "model_b";
constexpr std::string_view kGraphSuffix = ".onnx";
constexpr std::string_view kDrivePrefix = "drive/";

// model_b<batch>[_<rest>].onnx -> render_model.batch<batch>[.<rest>].onnx
std::string graphCanonical(std::string_view name) {
  const std::string_view mid =
      name.substr(kGraphPrefix.size(), name.size() - kGraphPrefix.size() - kGraphSuffix.size());
  const size_t us = mid.find('_');
  std::string out = "render_model.batch";
  out += mid.substr(0, us);
  if (us != std::string_view::npos && us + 1 < mid.size()) {
    out += '.';
    out += mid.substr(us + 1);
  }
  out += kGraphSuffix;
  return out;
}

// drive/<stem><ext> -> idle_loop/<long stem><ext>
std::string driveCanonical(std::string_view name) {
  const std::string_view rest = name.substr(kDrivePrefix.size());
  const size_t dot = rest.find('.');
  std::string_view stem = rest.substr(0, dot);
  const std::string_view ext = dot == std::string_view::npos ? std::string_view() : rest.substr(dot);
  if (stem == "xs")
    stem = "source_keypoints";
  else if (stem == "xd")
    stem = "driven_keypoints";
  else if (stem == "si")
    stem = "source_index";
  std::string out = "idle_loop/";
  out += stem;
  out += ext;
  return out;
}

}  // namespace

std::string canonicalMemberName(const std::string& name) {
  for (const auto& [primary, canonical] : kPairs)
    if (name == primary) return std::string(canonical);
  if (startsWith(name, kGraphPrefix) && endsWith(name, kGraphSuffix) &&
      name.size() > kGraphPrefix.size() + kGraphSuffix.size())
    return graphCanonical(name);
  if (startsWith(name, kDrivePrefix)) return driveCanonical(name);
  return name;
}

std::string resolveMember(const std::string& dir, const std::string& name) {
  const std::string canonical = canonicalMemberName(name);
  const std::string primaryPath = dir + "/" + name;
  if (canonical == name) return primaryPath;
  if (canOpen(primaryPath)) return primaryPath;
  std::string canonicalPath = dir + "/" + canonical;
  if (canOpen(canonicalPath)) return canonicalPath;
  return primaryPath;
}

}  // namespace le
