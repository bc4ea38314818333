// This platform has no Metal device, so there is no GPU road: every stream
// runs the CPU pass, and its compositor line says so.
#include "tessera/metal_teeth.h"

namespace le::tessera {

std::unique_ptr<MetalTeeth> MetalTeeth::create(const TeethPass&) { return nullptr; }

}  // namespace le::tessera
