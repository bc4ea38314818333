// The teeth bank's reference track as donor frames an author can look at:
// the track (tessera_bank.v1.mp4) decoded through FFmpeg, each frame put in
// its donor slot by the sidecar's track_order, and written as PNG.
#pragma once

#include <string>

namespace le::tools {

// Writes <outdir>/donor_0000.png ... in donor order, each band_w x band_h
// RGB as the sidecar's geometry stamp sizes the stored patch. The track
// must decode to an RGB layout (such as the planar GBR of lossless H.264
// RGB) at the stated pixel format, and to exactly n_donors frames of that
// size; anything else is refused, since turning YUV into donor bytes needs a
// colour conversion the bank doesn't define. Returns the donor count;
// throws a runtime error with the reason.
int writeBankDonors(const std::string& bundle, const std::string& outdir);

}  // namespace le::tools
