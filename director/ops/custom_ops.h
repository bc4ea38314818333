// The engine's own ONNX Runtime operators. The load-time rewrites put these
// nodes into the director graphs (and some bundles carry them baked in), so a
// session over such a graph needs the domains registered into its options
// before it is created.
//
// The domain objects are process-wide and live until exit: ONNX Runtime keeps
// pointers to them in every session that was created with them.
#pragma once

#include <onnxruntime_cxx_api.h>

#include "director/rewrites/gridsample_fast.h"  // kKestrovaDomain

namespace le {

inline constexpr const char* kKestrovaInt8Domain = "com.kestrova.int8";

inline constexpr const char* kGridSampleFastOp = "GridSampleFast";
inline constexpr const char* kWarpDirectorOp = "WarpDirector";
inline constexpr const char* kWarpDirectorFusedOp = "WarpDirectorFused";
inline constexpr const char* kSubBcastKHWCOp = "SubBcastKHWC";
inline constexpr const char* kInt8ConvVNNIOp = "Int8ConvVNNI";

// Creates the "com.kestrova" domain on first use (GridSampleFast,
// WarpDirector, WarpDirectorFused, SubBcastKHWC, in that order) and adds it
// to options. registerGridSampleFast and registerWarpDirector are this call.
void addKestrovaDomainOnce(Ort::SessionOptions& options);
void registerGridSampleFast(Ort::SessionOptions& options);
void registerWarpDirector(Ort::SessionOptions& options);

// The same for the "com.kestrova.int8" domain with its one op Int8ConvVNNI.
void registerInt8ConvVNNI(Ort::SessionOptions& options);

}  // namespace le
