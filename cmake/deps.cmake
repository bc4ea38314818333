# Third-party dependencies.
find_package(Threads REQUIRED)

# ONNX Runtime: installed from the npm registry by scripts/setup.sh (package.json
# pins onnxruntime-node 1.29.0 for the library and com.github.asus4.onnxruntime
# 0.4.9 for the matching headers).
set(LE_NODE_MODULES "${CMAKE_CURRENT_SOURCE_DIR}/node_modules" CACHE PATH
  "node_modules directory holding the pinned ONNX Runtime packages")
find_library(LE_ORT_LIBRARY NAMES libonnxruntime.so.1 onnxruntime
  PATHS "${LE_NODE_MODULES}/onnxruntime-node/bin/napi-v6/linux/x64" NO_DEFAULT_PATH)
find_path(LE_ORT_INCLUDE_DIR onnxruntime_c_api.h
  PATHS "${LE_NODE_MODULES}/com.github.asus4.onnxruntime/Plugins/iOS~/onnxruntime.xcframework/ios-arm64/onnxruntime.framework/Headers"
  NO_DEFAULT_PATH)
if(NOT LE_ORT_LIBRARY OR NOT LE_ORT_INCLUDE_DIR)
  message(FATAL_ERROR "ONNX Runtime not found under ${LE_NODE_MODULES}: run scripts/setup.sh "
    "(it runs 'npm ci --ignore-scripts' against the committed package-lock.json)")
endif()
file(STRINGS "${LE_ORT_INCLUDE_DIR}/onnxruntime_c_api.h" _le_ort_api REGEX "^#define ORT_API_VERSION [0-9]+")
string(REGEX REPLACE ".* ([0-9]+)$" "\\1" LE_ORT_API_VERSION "${_le_ort_api}")
if(NOT LE_ORT_API_VERSION EQUAL 29)
  message(FATAL_ERROR "ONNX Runtime headers carry ORT_API_VERSION ${LE_ORT_API_VERSION}; the pinned runtime 1.29.0 needs 29")
endif()
get_filename_component(LE_ORT_LIB_DIR "${LE_ORT_LIBRARY}" DIRECTORY)
add_library(le_onnxruntime INTERFACE)
target_include_directories(le_onnxruntime SYSTEM INTERFACE "${LE_ORT_INCLUDE_DIR}")
target_link_libraries(le_onnxruntime INTERFACE "${LE_ORT_LIBRARY}")
message(STATUS "ONNX Runtime: ${LE_ORT_LIBRARY} (API ${LE_ORT_API_VERSION})")

# Highway (Debian libhwy-dev).
find_package(PkgConfig REQUIRED)
pkg_check_modules(LE_HWY REQUIRED IMPORTED_TARGET libhwy)
add_library(le_highway INTERFACE)
target_link_libraries(le_highway INTERFACE PkgConfig::LE_HWY)

# stb (Debian libstb-dev): header-only use of stb_image and stb_image_write.
find_path(LE_STB_INCLUDE_DIR stb_image.h PATH_SUFFIXES stb REQUIRED)

# FFmpeg (Debian libavformat-dev, libavcodec-dev, libavutil-dev): plays the
# driver and warp prior movies. Decoded planes become frames through the
# engine's own conversion kernels, so libswscale is not used.
pkg_check_modules(LE_FFMPEG REQUIRED IMPORTED_TARGET libavformat libavcodec libavutil)
add_library(le_ffmpeg INTERFACE)
target_link_libraries(le_ffmpeg INTERFACE PkgConfig::LE_FFMPEG)
