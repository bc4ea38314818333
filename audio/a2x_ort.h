// How the audio-to-keypoints family talks to ONNX Runtime: its log level,
// the session options every graph of the family shares, the optional CUDA
// provider of the speech frontend, and opening a graph with the way round a
// fused fp16 Gelu that the CPU provider cannot run.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstdint>
#include <string>
#include <vector>

namespace le {

// ORT_LOGGING_LEVEL_ERROR (3) when KESTROVA_ENGINE_QUIET is exactly "1" and
// KESTROVA_DEBUG is not exactly "1", else ORT_LOGGING_LEVEL_WARNING (2).
OrtLoggingLevel a2xOrtLogLevel();

// Intra-op threads as given, one inter-op thread, no spinning, every graph
// optimisation, then le_a2x_maybe_cuda with the tag ("enc/dec" or "w2v").
void a2xSessionOptions(Ort::SessionOptions& options, int threads, const char* tag);

// Appends the CUDA provider when LE_A2X_CUDA is exactly "1" and the tag is
// exactly "w2v"; a runtime without the provider is logged and left on the
// CPU.
void le_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag);

// True for ONNX Runtime's refusal of a float16 com.microsoft.Gelu that its
// level-2 fusion made: the text holds both "Gelu" and "float16".
bool le_a2x_is_fp16_fusion_refusal(const char* what);

// Opens a graph; on that refusal lowers the options (shared with the caller)
// to basic optimisation and opens it once more.
Ort::Session le_a2x_open_session(Ort::Env& env, const char* path, Ort::SessionOptions& options);

// An exception's text fit for a one-line log: line breaks become blanks,
// trailing blanks go (ONNX Runtime ends some of its texts with a newline).
std::string oneLine(const char* what);

// The CPU memory description of every tensor the family hands ONNX Runtime;
// made once.
const Ort::MemoryInfo& cpuMemory();

// Name of a session's output i.
std::string outputName(const Ort::Session& session, size_t i);

// Declared shape of a session's output i (-1 for a free dimension).
std::vector<int64_t> outputShape(const Ort::Session& session, size_t i);

// True if the graph has an input of this name.
bool hasInput(const Ort::Session& session, const char* name);

}  // namespace le
