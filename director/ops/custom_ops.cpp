#include "director/ops/custom_ops.h"

#include "director/ops/op_support.h"

namespace le {

namespace {

void domainOps(Ort::CustomOpDomain& domain) {
  domain.Add(gridSampleFastOp());
  domain.Add(warpDirectorOp());
  domain.Add(warpDirectorFusedOp());
  domain.Add(subBcastKHWCOp());
}

}  // namespace

void addKestrovaDomainOnce(Ort::SessionOptions& options) {
  // Sessions keep pointers into the domain, so it lives until exit.
  static Ort::CustomOpDomain domain = [] {
    Ort::CustomOpDomain d(kKestrovaDomain);
    domainOps(d);
    return d;
  }();
  options.Add(domain);
}

void registerGridSampleFast(Ort::SessionOptions& options) { addKestrovaDomainOnce(options); }

void registerWarpDirector(Ort::SessionOptions& options) { addKestrovaDomainOnce(options); }

void registerInt8ConvVNNI(Ort::SessionOptions& options) {
  static Ort::CustomOpDomain domain = [] {
    Ort::CustomOpDomain d(kKestrovaInt8Domain);
    d.Add(int8ConvVNNIOp());
    return d;
  }();
  options.Add(domain);
}

}  // namespace le
