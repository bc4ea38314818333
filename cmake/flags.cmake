# Whole-project compiler settings.
# -ffp-contract=off: g++ fuses a*b+c into one rounding by default, and the
# engine's kernels define their results with the product rounded first.
# Nothing here may ever add -ffast-math.
add_compile_options(-ffp-contract=off -fno-fast-math
  -Wall -Wextra -Wpedantic -Wshadow -Wcast-align $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  -Wno-missing-field-initializers)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-O2)
endif()
if(LE_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=address,undefined)
endif()
if(LE_TSAN)
  # ThreadSanitizer for the threaded parts (sessions, speech, driver, pool).
  # ONNX Runtime itself is not instrumented: tests/tsan.supp keeps its own
  # internals out of the reports, and the runs use one intra-op thread.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=thread)
endif()
string(FIND "${CMAKE_CXX_FLAGS} ${CMAKE_C_FLAGS}" "fast-math" _le_fm)
if(NOT _le_fm EQUAL -1)
  message(FATAL_ERROR "-ffast-math is not allowed: the engine's numerics are defined bit for bit")
endif()
